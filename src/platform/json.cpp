#include "ostrel/platform/json.h"

#include "ostrel/platform/numbers.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace ostrel::json {

namespace {

std::string at(const std::string &path) {
    return path.empty() ? "" : " at " + path;
}

const char *typeName(const Json &value) {
    switch (value.type()) {
        case Json::value_t::object:
            return "an object";
        case Json::value_t::array:
            return "an array";
        case Json::value_t::string:
            return "a string";
        case Json::value_t::boolean:
            return "a boolean";
        case Json::value_t::null:
            return "null";
        case Json::value_t::number_integer:
        case Json::value_t::number_unsigned:
        case Json::value_t::number_float:
            return "a number";
        default:
            return "something else";
    }
}

[[noreturn]] void mismatch(const char *wanted, const Json &value, const std::string &path) {
    throw DecodingError(DecodingError::Kind::typeMismatch,
                        fmt::format("Expected {}{}, found {}.", wanted, at(path), typeName(value)));
}

// nlohmann's messages start with "[json.exception.parse_error.101] " and may quote raw
// input bytes; keep the readable part and only ASCII, so the message can travel as JSON.
std::string cleanParseMessage(const std::string &message) {
    std::size_t start = message.find("] ");
    std::string text = start == std::string::npos ? message : message.substr(start + 2);
    for (char &c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            c = '?';
        }
    }
    return text;
}

// 2^53: every integer up to here is exact as a double.
constexpr double kExactIntegers = 9007199254740992.0;

}  // namespace

Json parse(std::string_view text) {
    try {
        return Json::parse(text.begin(), text.end());
    } catch (const Json::exception &e) {
        throw DecodingError(DecodingError::Kind::dataCorrupted,
                            "The data is not valid JSON: " + cleanParseMessage(e.what()));
    }
}

Json number(double value) {
    if (std::isnan(value)) {
        return "nan";
    }
    if (std::isinf(value)) {
        return value > 0 ? "inf" : "-inf";
    }
    if (value == std::trunc(value) && std::fabs(value) <= kExactIntegers &&
        !(value == 0 && std::signbit(value))) {
        return static_cast<std::int64_t>(value);
    }
    return value;
}

std::string child(const std::string &path, std::string_view name) {
    return path.empty() ? std::string(name) : path + "." + std::string(name);
}

std::string element(const std::string &path, std::size_t index) {
    return fmt::format("{}[{}]", path, index);
}

const Json &object(const Json &value, const std::string &path) {
    if (!value.is_object()) {
        mismatch("an object", value, path);
    }
    return value;
}

const Json &array(const Json &value, const std::string &path) {
    if (!value.is_array()) {
        mismatch("an array", value, path);
    }
    return value;
}

const Json &member(const Json &object, const char *name, const std::string &path) {
    auto found = object.find(name);
    if (found == object.end()) {
        throw DecodingError(DecodingError::Kind::keyNotFound,
                            fmt::format("Missing member \"{}\"{}.", name, at(path)));
    }
    return *found;
}

const Json *optionalMember(const Json &object, const char *name) {
    auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

double toDouble(const Json &value, const std::string &path) {
    if (value.is_number()) {
        return value.get<double>();
    }
    if (value.is_string()) {
        const std::string &text = value.get_ref<const std::string &>();
        if (text == "inf") {
            return std::numeric_limits<double>::infinity();
        }
        if (text == "-inf") {
            return -std::numeric_limits<double>::infinity();
        }
        if (text == "nan") {
            return std::numeric_limits<double>::quiet_NaN();
        }
    }
    mismatch("a number (or \"inf\", \"-inf\", \"nan\")", value, path);
}

std::int64_t toInt64(const Json &value, const std::string &path) {
    if (value.is_number_integer() && !value.is_number_unsigned()) {
        return value.get<std::int64_t>();
    }
    if (value.is_number_unsigned()) {
        if (value.get<std::uint64_t>() <=
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return value.get<std::int64_t>();
        }
    } else if (value.is_number_float()) {
        // 3.0 is an integer written with a fraction; the limits are exact powers of two.
        double number = value.get<double>();
        if (auto whole = numbers::truncatedInt64(number); whole && number == std::trunc(number)) {
            return *whole;
        }
    }
    mismatch("an integer", value, path);
}

bool toBool(const Json &value, const std::string &path) {
    if (!value.is_boolean()) {
        mismatch("a boolean", value, path);
    }
    return value.get<bool>();
}

std::string toString(const Json &value, const std::string &path) {
    if (!value.is_string()) {
        mismatch("a string", value, path);
    }
    return value.get<std::string>();
}

double memberDouble(const Json &object, const char *name, const std::string &path) {
    return toDouble(member(object, name, path), child(path, name));
}

std::int64_t memberInt64(const Json &object, const char *name, const std::string &path) {
    return toInt64(member(object, name, path), child(path, name));
}

bool memberBool(const Json &object, const char *name, const std::string &path) {
    return toBool(member(object, name, path), child(path, name));
}

std::string memberString(const Json &object, const char *name, const std::string &path) {
    return toString(member(object, name, path), child(path, name));
}

std::optional<double> optionalDouble(const Json &object, const char *name,
                                     const std::string &path) {
    if (const Json *value = optionalMember(object, name)) {
        return toDouble(*value, child(path, name));
    }
    return std::nullopt;
}

void invalidValue(const std::string &text, std::string_view expected, const std::string &path) {
    throw DecodingError(DecodingError::Kind::dataCorrupted,
                        fmt::format("Invalid value {}{} (expected {}).",
                                    Json(text).dump(-1, ' ', false, Json::error_handler_t::replace),
                                    at(path), expected));
}

}  // namespace ostrel::json
