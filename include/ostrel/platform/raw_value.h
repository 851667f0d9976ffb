// Enumerations whose cases each have one fixed text (their raw value), found through an
// overload `std::string_view rawValue(E)` next to the enumeration.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace ostrel {

// The case of `cases` whose raw value is exactly `text` (case-sensitive), or nothing.
template <class E, std::size_t N>
constexpr std::optional<E> caseWithRawValue(const std::array<E, N> &cases, std::string_view text) {
    for (E value : cases) {
        if (rawValue(value) == text) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace ostrel
