// Combining hashes of several members into one value, for the kit's std::hash
// specialisations.
#pragma once

#include <cstddef>

namespace ostrel {

// Mixes `value` into `seed`; the order of the calls matters, so (a, b) and (b, a) differ.
constexpr void hashCombine(std::size_t &seed, std::size_t value) noexcept {
    seed ^= value + 0x9e3779b97f4a7c15u + (seed << 6) + (seed >> 2);
}

}  // namespace ostrel
