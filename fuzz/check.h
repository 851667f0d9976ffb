// What every fuzz target uses to report a broken property: an abort, which libFuzzer
// records as a crash with the input that caused it.
#pragma once

#include <cstdlib>

namespace ostrel::fuzz {

inline void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace ostrel::fuzz
