// The fuzz targets' assertion: a broken property aborts, which libFuzzer reports with the
// input that caused it (assert would vanish under NDEBUG).
#pragma once

#include <cstdlib>

namespace ostrel::fuzz {

inline void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace ostrel::fuzz
