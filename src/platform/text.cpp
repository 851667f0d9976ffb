#include "ostrel/platform/text.h"

namespace ostrel::text {

namespace {

// The length of the well-formed sequence starting at bytes[i], or 0.
std::size_t sequenceLength(std::string_view bytes, std::size_t i) {
    auto at = [&](std::size_t k) { return static_cast<unsigned char>(bytes[k]); };
    unsigned char lead = at(i);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
        high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (i + length > bytes.size()) {
        return 0;
    }
    if (at(i + 1) < low || at(i + 1) > high) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if (at(i + k) < 0x80 || at(i + k) > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

std::string utf8Repaired(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size();) {
        std::size_t length = sequenceLength(bytes, i);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(bytes.substr(i, length));
            i += length;
        }
    }
    return out;
}

std::string printable(std::string_view bytes) {
    std::string text = utf8Repaired(bytes);
    std::string out;
    out.reserve(text.size());
    auto hex = [&out](unsigned char byte) {
        out += "0123456789abcdef"[byte >> 4];
        out += "0123456789abcdef"[byte & 0xF];
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) {
            out += "\\x";
            hex(c);
        } else if (c == 0xC2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) < 0xA0) {
            // U+0080 to U+009F, the C1 controls: 0x9B alone starts an escape sequence on
            // many terminals.
            out += "\\u00";
            hex(static_cast<unsigned char>(text[++i]));
        } else if (c == '\\') {
            out += "\\\\";
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

}  // namespace ostrel::text
