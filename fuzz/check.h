// What the fuzz targets assert: a broken property aborts, which libFuzzer reports as a
// finding with the input that broke it.
#pragma once

#include <cstdlib>

namespace ostrel::fuzz {

inline void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace ostrel::fuzz
