#include "ostrel/vsmc/profile.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <span>

#include "csmc/smc.h"
#include "ostrel/platform/embedded.h"
#include "ostrel/platform/text.h"

namespace ostrel::embedded {
extern const EmbeddedFile builtinProfiles[];
extern const std::size_t builtinProfilesCount;
}  // namespace ostrel::embedded

namespace ostrel::vsmc {

namespace {

using text::hexDigitValue;
using text::parseNumber;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

struct Token {
    enum Kind { Bare, Quoted, Bytes } kind = Bare;
    std::string text;  // Bare: the characters; Quoted and Bytes: the decoded bytes
};

// Reports errors against one line of one source.
struct LineContext {
    const std::string &source;
    std::size_t line;

    [[noreturn]] void fail(const std::string &message) const {
        throw ProfileError(fmt::format("{}:{}: {}", source, line, message));
    }
};

std::vector<Token> tokenize(std::string_view text, const LineContext &at) {
    std::vector<Token> tokens;
    std::size_t i = 0;
    while (true) {
        while (i < text.size() && isBlank(text[i])) {
            ++i;
        }
        if (i >= text.size()) {
            return tokens;
        }
        Token token;
        if (text[i] == '"') {
            token.kind = Token::Quoted;
            ++i;
            bool closed = false;
            while (i < text.size()) {
                char c = text[i++];
                if (c == '"') {
                    closed = true;
                    break;
                }
                if (c != '\\') {
                    token.text.push_back(c);
                    continue;
                }
                if (i >= text.size()) {
                    break;
                }
                char e = text[i++];
                if (e == '\\' || e == '"') {
                    token.text.push_back(e);
                } else if (e == 'x' && i + 1 < text.size() && hexDigitValue(text[i]) >= 0 &&
                           hexDigitValue(text[i + 1]) >= 0) {
                    token.text.push_back(static_cast<char>(hexDigitValue(text[i]) * 16 +
                                                           hexDigitValue(text[i + 1])));
                    i += 2;
                } else {
                    at.fail(fmt::format(
                        "unknown escape '\\{}' in quoted text (use \\\\, \\\" or \\xNN)", e));
                }
            }
            if (!closed) {
                at.fail("quoted text is not closed");
            }
        } else if (text[i] == '<') {
            token.kind = Token::Bytes;
            ++i;
            std::string digits;
            bool closed = false;
            while (i < text.size()) {
                char c = text[i++];
                if (c == '>') {
                    closed = true;
                    break;
                }
                if (isBlank(c)) {
                    continue;
                }
                if (hexDigitValue(c) < 0) {
                    at.fail(fmt::format("'{}' is not a hexadecimal digit in a byte list", c));
                }
                digits.push_back(c);
            }
            if (!closed) {
                at.fail("byte list is not closed with '>'");
            }
            if (digits.size() % 2 != 0) {
                at.fail("byte list has an odd number of hexadecimal digits");
            }
            for (std::size_t d = 0; d < digits.size(); d += 2) {
                token.text.push_back(static_cast<char>(hexDigitValue(digits[d]) * 16 +
                                                       hexDigitValue(digits[d + 1])));
            }
        } else {
            while (i < text.size() && !isBlank(text[i])) {
                token.text.push_back(text[i++]);
            }
        }
        tokens.push_back(std::move(token));
    }
}

// A key or type code: 1 to 4 characters, padded with blanks like every four-character code.
std::uint32_t parseCode(const Token &token, const char *what, const LineContext &at) {
    if (token.kind == Token::Bytes) {
        at.fail(fmt::format("{} must be text, not a byte list", what));
    }
    if (token.text.empty() || token.text.size() > 4) {
        at.fail(fmt::format("{} '{}' must be 1 to 4 characters", what, token.text));
    }
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        unsigned char c = i < token.text.size() ? static_cast<unsigned char>(token.text[i]) : ' ';
        code = (code << 8) | c;
    }
    return code;
}

template <typename T>
bool parseUnsigned(const std::string &text, T &out) {
    int base = 10;
    std::string_view digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), out, base);
    return ec == std::errc() && end == digits.data() + digits.size() && !digits.empty();
}

KeyEntry parseKeyRow(const std::vector<Token> &tokens, const LineContext &at) {
    if (tokens.size() < 5) {
        at.fail("a key row needs: key KEY TYPE SIZE ATTRIBUTES [VALUE]");
    }
    KeyEntry entry;
    entry.key = parseCode(tokens[1], "key", at);
    entry.type = parseCode(tokens[2], "type", at);
    if (tokens[3].kind != Token::Bare || !parseUnsigned(tokens[3].text, entry.size) ||
        entry.size > SMC_MAX_DATA) {
        at.fail(fmt::format("size '{}' must be a number from 0 to 32", tokens[3].text));
    }
    if (tokens[4].kind != Token::Bare || !parseUnsigned(tokens[4].text, entry.attributes)) {
        at.fail(fmt::format("attributes '{}' must be a byte (0x00 to 0xff)", tokens[4].text));
    }
    if (tokens.size() == 6 && tokens[5].kind == Token::Bare) {
        auto number = parseNumber(tokens[5].text);
        if (!number) {
            at.fail(
                fmt::format("value '{}' is not a number (text goes in double quotes, "
                            "bytes in <...>)",
                            tokens[5].text));
        }
        if (!std::isfinite(*number) ||
            !smc_encode_double(entry.type, entry.size, entry.bytes.data(), *number)) {
            at.fail(fmt::format("value {} cannot be encoded as type '{}' in {} bytes",
                                tokens[5].text, codeToken(entry.type), entry.size));
        }
        // The codec keeps only the low bytes of an integer and turns a float that is too
        // large into infinity: what the key would read must be the number that was written.
        double stored = *number;
        smc_decode_double(entry.type, entry.bytes.data(), entry.size, &stored);
        if (!std::isfinite(stored) ||
            std::abs(stored - *number) > std::max(0.5, std::abs(*number) * 1e-6)) {
            at.fail(
                fmt::format("value {} is out of range for type '{}' in {} bytes (it would "
                            "read {})",
                            tokens[5].text, codeToken(entry.type), entry.size, stored));
        }
        return entry;
    }
    std::string bytes;
    for (std::size_t i = 5; i < tokens.size(); ++i) {
        if (tokens[i].kind == Token::Bare) {
            at.fail(
                fmt::format("'{}': a number must be the whole value; text goes in double "
                            "quotes, bytes in <...>",
                            tokens[i].text));
        }
        bytes += tokens[i].text;
    }
    if (bytes.size() > entry.size) {
        at.fail(
            fmt::format("value has {} bytes but the key's size is {}", bytes.size(), entry.size));
    }
    std::copy(bytes.begin(), bytes.end(), entry.bytes.begin());
    double stored = 0;
    if (smc_decode_double(entry.type, entry.bytes.data(), entry.size, &stored) &&
        !std::isfinite(stored)) {
        at.fail(fmt::format("the bytes of a '{}' value must hold a finite number",
                            codeToken(entry.type)));
    }
    return entry;
}

// A finite number inside a field's range.
double parseBounded(const Token &token, std::string_view what, double min, double max,
                    const LineContext &at) {
    auto value = token.kind == Token::Bare ? parseNumber(token.text) : std::nullopt;
    if (!value || !std::isfinite(*value) || *value < min || *value > max) {
        at.fail(fmt::format("{} '{}' must be a number from {} to {}", what, token.text, min, max));
    }
    return *value;
}

template <typename Struct, typename Member>
void parseParam(const std::vector<Token> &tokens,
                std::span<const ParamField<Struct, Member>> fields, Struct &target,
                const LineContext &at) {
    const std::string &directive = tokens[0].text;
    if (tokens.size() != 3) {
        at.fail(fmt::format("'{}' needs a name and a value, e.g. {} {} {}", directive, directive,
                            fields.front().name, fields.front().min));
    }
    for (const auto &field : fields) {
        if (tokens[1].text == field.name) {
            target.*field.member = parseBounded(
                tokens[2], fmt::format("{} {}", directive, field.name), field.min, field.max, at);
            return;
        }
    }
    std::string known;
    for (const auto &field : fields) {
        known += (known.empty() ? "" : ", ") + std::string(field.name);
    }
    at.fail(fmt::format("unknown {} parameter '{}' (known: {})", directive, tokens[1].text, known));
}

Source parseSource(const Token &token, bool temperatureOnly, const LineContext &at) {
    auto source = token.kind == Token::Bare ? sourceFromName(token.text) : std::nullopt;
    if (!source || (temperatureOnly && !isTemperature(*source))) {
        at.fail(fmt::format("'{}' is not a {}quantity (see docs/vsmc-profiles.md)", token.text,
                            temperatureOnly ? "temperature " : ""));
    }
    return *source;
}

// bind KEY SOURCE [+OFFSET|-OFFSET] [xSCALE]
Binding parseBind(const std::vector<Token> &tokens, const LineContext &at) {
    if (tokens.size() < 3 || tokens.size() > 5) {
        at.fail("a binding reads: bind KEY QUANTITY [+OFFSET] [xSCALE]");
    }
    Binding binding;
    binding.key = parseCode(tokens[1], "key", at);
    binding.source = parseSource(tokens[2], false, at);
    for (std::size_t i = 3; i < tokens.size(); ++i) {
        const Token &t = tokens[i];
        if (t.kind == Token::Bare && !t.text.empty() && t.text[0] == 'x') {
            Token number{Token::Bare, t.text.substr(1)};
            binding.scale = parseBounded(number, "scale", -1e9, 1e9, at);
        } else if (t.kind == Token::Bare && !t.text.empty() &&
                   (t.text[0] == '+' || t.text[0] == '-')) {
            binding.offset = parseBounded(t, "offset", -1e9, 1e9, at);
        } else {
            at.fail(
                fmt::format("'{}' is neither an offset (+2.5, -3) nor a scale (x0.85)", t.text));
        }
    }
    return binding;
}

// sensor NAME SOURCE [OFFSET]
SensorService parseSensor(const std::vector<Token> &tokens, const LineContext &at) {
    if (tokens.size() < 3 || tokens.size() > 4 || tokens[1].kind == Token::Bytes) {
        at.fail("a sensor service reads: sensor \"NAME\" NODE [OFFSET]");
    }
    SensorService sensor;
    sensor.name = tokens[1].text;
    if (sensor.name.empty() || sensor.name.size() > 63) {
        at.fail("a sensor name must have 1 to 63 bytes");
    }
    sensor.source = parseSource(tokens[2], true, at);
    if (tokens.size() == 4) {
        sensor.offset = parseBounded(tokens[3], "offset", -1e9, 1e9, at);
    }
    return sensor;
}

}  // namespace

Profile parseProfile(std::string_view text, const std::string &source) {
    Profile profile;
    profile.source = source;
    std::map<std::uint32_t, std::size_t> seenOn;
    bool haveModel = false;
    std::vector<std::size_t> bindLines;
    std::size_t lineNo = 0;
    while (!text.empty()) {
        ++lineNo;
        std::size_t eol = text.find('\n');
        std::string_view line = text.substr(0, eol);
        text = eol == std::string_view::npos ? std::string_view{} : text.substr(eol + 1);

        LineContext at{source, lineNo};
        std::size_t first = 0;
        while (first < line.size() && isBlank(line[first])) {
            ++first;
        }
        if (first == line.size() || line[first] == '#') {
            continue;
        }
        std::vector<Token> tokens = tokenize(line, at);
        const Token &directive = tokens[0];
        if (directive.kind == Token::Bare && directive.text == "model") {
            std::size_t start = line.find("model") + 5;
            std::string_view rest = line.substr(start);
            while (!rest.empty() && isBlank(rest.front())) {
                rest.remove_prefix(1);
            }
            while (!rest.empty() && isBlank(rest.back())) {
                rest.remove_suffix(1);
            }
            if (rest.empty()) {
                at.fail("'model' needs a model identifier, e.g. model MacBookPro10,1");
            }
            profile.model = std::string(rest);
            haveModel = true;
        } else if (directive.kind == Token::Bare && directive.text == "key") {
            KeyEntry entry = parseKeyRow(tokens, at);
            auto [it, inserted] = seenOn.emplace(entry.key, lineNo);
            if (!inserted) {
                at.fail(fmt::format("key {} appears twice (first on line {})", codeToken(entry.key),
                                    it->second));
            }
            profile.keys.push_back(entry);
        } else if (directive.kind == Token::Bare && directive.text == "physics") {
            parseParam(tokens, physicsFields(), profile.params, at);
        } else if (directive.kind == Token::Bare && directive.text == "firmware") {
            parseParam(tokens, firmwareFields(), profile.params, at);
        } else if (directive.kind == Token::Bare && directive.text == "battery") {
            parseParam(tokens, batteryFields(), profile.battery, at);
            profile.battery.present = true;
        } else if (directive.kind == Token::Bare && directive.text == "bind") {
            profile.bindings.push_back(parseBind(tokens, at));
            bindLines.push_back(lineNo);
        } else if (directive.kind == Token::Bare && directive.text == "sensor") {
            profile.sensors.push_back(parseSensor(tokens, at));
        } else {
            at.fail(fmt::format(
                "unknown directive '{}' (expected model, key, physics, firmware, battery, bind "
                "or sensor)",
                directive.text));
        }
    }
    // A binding for a key the table lacks is almost always a typo.
    for (std::size_t i = 0; i < profile.bindings.size(); ++i) {
        if (!seenOn.contains(profile.bindings[i].key)) {
            LineContext{source, bindLines[i]}.fail(fmt::format("bind {}: the table has no such key",
                                                               codeToken(profile.bindings[i].key)));
        }
    }
    if (!haveModel) {
        throw ProfileError(fmt::format("{}: no 'model' line", source));
    }
    return profile;
}

std::string formatProfile(const Profile &profile) {
    std::string out = fmt::format("model {}\n", profile.model);
    const MachineParams defaults;
    for (const auto &[directive, fields] :
         {std::pair{"physics", physicsFields()}, std::pair{"firmware", firmwareFields()}}) {
        for (const MachineField &field : fields) {
            if (profile.params.*field.member != defaults.*field.member) {
                out +=
                    fmt::format("{} {} {}\n", directive, field.name, profile.params.*field.member);
            }
        }
    }
    for (const BatteryField &field : batteryFields()) {
        if (const auto &value = profile.battery.*field.member) {
            out += fmt::format("battery {} {}\n", field.name, *value);
        }
    }
    for (const Binding &b : profile.bindings) {
        out += fmt::format("bind {} {} {:+} x{}\n", codeToken(b.key), sourceName(b.source),
                           b.offset, b.scale);
    }
    for (const SensorService &sensor : profile.sensors) {
        out += fmt::format("sensor {} {} {:+}\n", csmc::quotedText(sensor.name),
                           sourceName(sensor.source), sensor.offset);
    }
    for (const KeyEntry &entry : profile.keys) {
        out += formatKeyRow(entry);
    }
    return out;
}

std::vector<std::string> builtinProfileNames() {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < embedded::builtinProfilesCount; ++i) {
        names.emplace_back(embedded::builtinProfiles[i].name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string_view> builtinProfileText(std::string_view name) {
    for (std::size_t i = 0; i < embedded::builtinProfilesCount; ++i) {
        if (name == embedded::builtinProfiles[i].name) {
            return embedded::builtinProfiles[i].text();
        }
    }
    return std::nullopt;
}

namespace {

[[noreturn]] void noProfile(std::string_view name, const char *elsewhere) {
    std::string known;
    for (const std::string &builtin : builtinProfileNames()) {
        known += (known.empty() ? "" : ", ") + builtin;
    }
    throw ProfileError(
        fmt::format("no profile '{}': not a built-in profile ({}){}", name, known, elsewhere),
        true);
}

}  // namespace

Profile builtinProfile(std::string_view name) {
    auto text = builtinProfileText(name);
    if (!text) {
        noProfile(name, "");
    }
    return parseProfile(*text, "builtin:" + std::string(name));
}

Profile loadProfile(const std::string &nameOrPath, const platform::Files &files) {
    if (builtinProfileText(nameOrPath)) {
        return builtinProfile(nameOrPath);
    }
    auto text = files.read(nameOrPath);
    if (!text) {
        noProfile(nameOrPath, " nor a readable file");
    }
    return parseProfile(*text, nameOrPath);
}

}  // namespace ostrel::vsmc
