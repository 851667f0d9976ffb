#include "csmc/key_rows.h"

#include <fmt/format.h>

#include <algorithm>

#include "csmc/smc.h"
#include "ostrel/platform/text.h"

namespace csmc {

namespace {

bool isPrintable(unsigned char c) {
    return c >= 32 && c <= 126;
}

std::string byteList(const std::uint8_t *bytes, std::size_t count) {
    std::string out = "<";
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) {
            out += ' ';
        }
        out += fmt::format("{:02x}", bytes[i]);
    }
    return out + ">";
}

// The value as the format's most readable exact text.
std::string formatValue(const KeyEntry &entry) {
    std::size_t size = std::min<std::size_t>(entry.size, SMC_MAX_DATA);
    const std::uint8_t *bytes = entry.bytes.data();
    double number = 0;
    if (smc_decode_double(entry.type, bytes, static_cast<std::uint32_t>(size), &number)) {
        std::string text = fmt::format("{}", number);
        std::array<std::uint8_t, 32> again{};
        auto reread = ostrel::text::parseNumber(text);
        if (reread &&
            smc_encode_double(entry.type, static_cast<std::uint32_t>(size), again.data(),
                              *reread) &&
            std::equal(bytes, bytes + size, again.begin())) {
            return text;
        }
    }
    std::size_t used = size;
    while (used > 0 && bytes[used - 1] == 0) {
        --used;
    }
    if (used == 0) {
        return size == 0 ? "" : "<>";
    }
    // A printable tail of at least two characters reads better as text, with whatever
    // precedes it (the header of a fan description, say) as bytes.
    std::size_t start = used;
    while (start > 0 && isPrintable(bytes[start - 1])) {
        --start;
    }
    if (used - start < 2) {
        return byteList(bytes, used);
    }
    std::string text = quotedText({reinterpret_cast<const char *>(bytes + start), used - start});
    return start == 0 ? text : byteList(bytes, start) + " " + text;
}

}  // namespace

std::string quotedText(std::string_view bytes) {
    std::string out = "\"";
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (isPrintable(c)) {
            out += ch;
        } else {
            out += fmt::format("\\x{:02x}", c);
        }
    }
    return out + "\"";
}

std::string codeToken(std::uint32_t code) {
    std::string chars;
    for (int shift = 24; shift >= 0; shift -= 8) {
        chars.push_back(static_cast<char>((code >> shift) & 0xFF));
    }
    std::string trimmed = chars;
    while (!trimmed.empty() && trimmed.back() == ' ') {
        trimmed.pop_back();
    }
    bool bare = !trimmed.empty() && std::all_of(trimmed.begin(), trimmed.end(), [](char c) {
        auto u = static_cast<unsigned char>(c);
        return isPrintable(u) && c != ' ' && c != '"' && c != '<';
    });
    return bare ? trimmed : quotedText(chars);
}

std::string formatKeyRow(const KeyEntry &entry) {
    std::string value = formatValue(entry);
    return fmt::format("key {:<6} {:<6} {:>2} 0x{:02x}{}{}\n", codeToken(entry.key),
                       codeToken(entry.type), entry.size, entry.attributes,
                       value.empty() ? "" : " ", value);
}

}  // namespace csmc
