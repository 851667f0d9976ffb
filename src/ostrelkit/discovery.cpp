#include "ostrel/discovery.h"

#include <fmt/format.h>

#include <charconv>

#include "csmc/keys.h"
#include "ostrel/platform/text.h"

namespace ostrel {

FourCC FanDescriptor::key(std::string_view suffix) const {
    return FourCC(csmc::fanKey(static_cast<std::size_t>(index), suffix));
}

namespace {

char flag(bool value) {
    return value ? '1' : '0';
}

std::string hex(FourCC code) {
    return fmt::format("{:x}", code.rawValue);
}

// Cuts a line into at most `count` fields at single blanks from the left: the last field
// is the rest of the line, blanks included; two blanks in a row give an empty field.
std::vector<std::string_view> fields(std::string_view line, std::size_t count) {
    std::vector<std::string_view> out;
    while (out.size() + 1 < count) {
        std::size_t blank = line.find(' ');
        if (blank == std::string_view::npos) {
            break;
        }
        out.push_back(line.substr(0, blank));
        line.remove_prefix(blank + 1);
    }
    out.push_back(line);
    return out;
}

// Digits 0-9 and lower-case a-f below the radix, at least one; the value wraps at
// `bits` bits. Anything else makes the cache invalid.
template <typename T>
std::optional<T> wrappingNumber(std::string_view text, unsigned radix) {
    if (text.empty()) {
        return std::nullopt;
    }
    T value = 0;
    for (char c : text) {
        int digit = c >= 'a' && c <= 'f' ? c - 'a' + 10 : (c >= '0' && c <= '9' ? c - '0' : -1);
        if (digit < 0 || static_cast<unsigned>(digit) >= radix) {
            return std::nullopt;
        }
        value = static_cast<T>(value * radix + static_cast<unsigned>(digit));
    }
    return value;
}

// A non-empty run of the digits 0-9 that fits a signed 64-bit integer.
std::optional<std::int64_t> decimalRun(std::string_view text) {
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || text.front() == '-' || ec != std::errc() ||
        end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

bool flagField(std::string_view text) {
    return !text.empty() && text.front() == '1';
}

}  // namespace

std::string Discovery::cacheData() const {
    std::string out = fmt::format("ostrel-discovery {} {} {} {} {}\nmodel {}\n", version, keyCount,
                                  flag(fanForceKey), flag(fanTestKey), flag(hid), model);
    for (const SensorDescriptor &s : sensors) {
        out += fmt::format("s {} {} {} {} {} {} {} {} {}\n", hex(s.info.key), hex(s.info.type),
                           s.info.size, s.info.attributes, rawValue(s.quantity), rawValue(s.group),
                           flag(s.known), flag(s.essential), s.name);
    }
    for (const FanDescriptor &f : fans) {
        out += fmt::format("f {} {} {}\n", f.index, flag(f.hasModeKey), f.name);
    }
    return out;
}

std::optional<Discovery> Discovery::fromCache(std::string_view bytes) {
    Discovery discovery;
    bool haveHeader = false;
    while (!bytes.empty()) {
        std::size_t eol = bytes.find('\n');
        std::string_view line = bytes.substr(0, eol);
        bytes = eol == std::string_view::npos ? std::string_view{} : bytes.substr(eol + 1);
        if (line.empty()) {
            continue;
        }
        switch (line.front()) {
            case 'o': {  // header; the magic word itself is not compared
                auto f = fields(line, 6);
                if (f.size() < 6) {
                    return std::nullopt;
                }
                auto version = decimalRun(f[1]);
                auto keyCount = wrappingNumber<std::uint32_t>(f[2], 10);
                if (!version || !keyCount) {
                    return std::nullopt;
                }
                discovery.version = *version;
                discovery.keyCount = *keyCount;
                discovery.fanForceKey = flagField(f[3]);
                discovery.fanTestKey = flagField(f[4]);
                discovery.hid = flagField(f[5]);
                haveHeader = true;
                break;
            }
            case 'm':
                discovery.model = text::utf8Repaired(line.size() > 6 ? line.substr(6) : "");
                break;
            case 's': {
                auto f = fields(line, 10);
                if (f.size() < 10) {
                    return std::nullopt;
                }
                auto key = wrappingNumber<std::uint32_t>(f[1], 16);
                auto type = wrappingNumber<std::uint32_t>(f[2], 16);
                auto size = wrappingNumber<std::uint32_t>(f[3], 10);
                auto attributes = wrappingNumber<std::uint8_t>(f[4], 10);
                auto quantity = quantityFromRaw(f[5]);
                auto group = sensorGroupFromRaw(f[6]);
                if (!key || !type || !size || !attributes || !quantity || !group) {
                    return std::nullopt;
                }
                discovery.sensors.push_back({{FourCC(*key), FourCC(*type), *size, *attributes},
                                             *quantity,
                                             text::utf8Repaired(f[9]),
                                             *group,
                                             flagField(f[7]),
                                             flagField(f[8])});
                break;
            }
            case 'f': {
                auto f = fields(line, 4);
                if (f.size() < 4) {
                    return std::nullopt;
                }
                auto index = decimalRun(f[1]);
                if (!index) {
                    return std::nullopt;
                }
                discovery.fans.push_back({*index, text::utf8Repaired(f[3]), flagField(f[2])});
                break;
            }
            default:
                return std::nullopt;
        }
    }
    if (!haveHeader || discovery.version != kVersion) {
        return std::nullopt;
    }
    return discovery;
}

void to_json(Json &json, const SensorDescriptor &sensor) {
    json = Json{{"info", sensor.info},   {"quantity", rawValue(sensor.quantity)},
                {"name", sensor.name},   {"group", rawValue(sensor.group)},
                {"known", sensor.known}, {"essential", sensor.essential}};
}

void to_json(Json &json, const FanDescriptor &fan) {
    json = Json{{"index", fan.index}, {"name", fan.name}, {"hasModeKey", fan.hasModeKey}};
}

void to_json(Json &json, const Discovery &discovery) {
    json = Json{{"version", discovery.version},
                {"model", discovery.model},
                {"keyCount", discovery.keyCount},
                {"sensors", discovery.sensors},
                {"fans", discovery.fans},
                {"fanForceKey", discovery.fanForceKey},
                {"fanTestKey", discovery.fanTestKey},
                {"hid", discovery.hid}};
}

}  // namespace ostrel
