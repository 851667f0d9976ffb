#include "ostrel/number_text.h"

#include <cerrno>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <new>

#include <locale.h>

namespace ostrel {

std::string numberText(double value) {
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value > 0 ? "inf" : "-inf";
    }
    // The shortest round-trip digits in fixed notation never carry a ".0", so what to_chars
    // writes is already the text we want; only the notation needs choosing.
    double magnitude = std::fabs(value);
    bool plain = magnitude == 0 || (magnitude >= 1e-4 && magnitude < 1e16);
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value,
                                plain ? std::chars_format::fixed : std::chars_format::scientific);
    return std::string(buffer, result.ptr);
}

namespace {

// A "C" locale object of our own, so that a program that called setlocale (a user's
// LC_NUMERIC with a decimal comma) still reads "72.5" as seventy-two and a half.
locale_t posixLocale() {
    static const locale_t locale = [] {
        locale_t made = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
        if (made == nullptr) {
            throw std::bad_alloc();  // the only way creating "C" can fail
        }
        return made;
    }();
    return locale;
}

// The characters strtod skips before a number in the POSIX locale.
bool isPosixSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

std::optional<double> readNumber(std::string_view text) {
    if (text.empty() || isPosixSpace(text.front())) {
        return std::nullopt;
    }
    std::string terminated(text);  // strtod reads up to a NUL; an embedded NUL stops it short
    const char *begin = terminated.c_str();
    char *end = nullptr;
    int savedErrno = errno;
    errno = 0;
    double value = strtod_l(begin, &end, posixLocale());
    bool outOfRange = errno == ERANGE;
    errno = savedErrno;
    if (end != begin + terminated.size() || outOfRange) {
        return std::nullopt;
    }
    return value;
}

}  // namespace ostrel
