// The project's JSON type: nlohmann's, with members kept in insertion order so that
// written objects list their members in the documented order. Also the strict readers that
// every JSON form is decoded with, and their typed error. It sits below the kit so that the
// virtual Mac and the tools read JSON the same way without linking the kit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "ostrel/platform/raw_value.h"

namespace ostrel {

using Json = nlohmann::ordered_json;

// JSON that does not have the expected form. what() says what was wrong and where, as a
// path from the top of the value ("curve._0.points[1].rpm"); it is valid UTF-8 whatever
// the input was.
class DecodingError : public std::runtime_error {
  public:
    enum class Kind {
        dataCorrupted,  // not JSON at all, or a value outside its allowed set
        keyNotFound,    // a required member is missing
        typeMismatch,   // a value of the wrong JSON type, or the wrong number of members
    };

    DecodingError(Kind kind, const std::string &message)
        : std::runtime_error(message), kind_(kind) {}

    Kind kind() const { return kind_; }

  private:
    Kind kind_;
};

namespace json {

// Parses a whole JSON text. Throws DecodingError (dataCorrupted) when it is not one valid
// JSON value, naming the line and column; never anything else.
Json parse(std::string_view text);

// A number as a JSON value: integral values within ±2^53 as integers (2000, not 2000.0),
// other finite values as floating point, and the non-finite ones as the strings "inf",
// "-inf" and "nan", which no JSON number can carry.
Json number(double value);

// Path building for messages: child("fixed", "rpm") is "fixed.rpm", child("", "rpm") is
// "rpm", element("points", 2) is "points[2]".
std::string child(const std::string &path, std::string_view name);
std::string element(const std::string &path, std::size_t index);

// The strict readers. Each takes the value and its path and throws DecodingError naming
// the path when the value is not of the wanted type.
const Json &object(const Json &value, const std::string &path);
const Json &array(const Json &value, const std::string &path);
// A required member of an object (which the caller has checked with object()); throws
// keyNotFound when it is missing.
const Json &member(const Json &object, const char *name, const std::string &path);
// An optional member: nullptr when missing (there is no null form of an absent value).
const Json *optionalMember(const Json &object, const char *name);
// A JSON number, or one of the strings "inf", "-inf", "nan".
double toDouble(const Json &value, const std::string &path);
// An integral JSON number within the signed 64-bit range.
std::int64_t toInt64(const Json &value, const std::string &path);
bool toBool(const Json &value, const std::string &path);
std::string toString(const Json &value, const std::string &path);

// A required array member whose elements `decode` reads, each with its own path
// ("sensors[2]").
template <class T>
std::vector<T> listFrom(const Json &object, const char *name, const std::string &path,
                        T (*decode)(const Json &, const std::string &)) {
    std::string listPath = child(path, name);
    const Json &list = array(member(object, name, path), listPath);
    std::vector<T> items;
    items.reserve(list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        items.push_back(decode(list[i], element(listPath, i)));
    }
    return items;
}

// Throws DecodingError (dataCorrupted): "Invalid value "<text>" at <path> (expected
// <expected>).", the text quoted and escaped as JSON.
[[noreturn]] void invalidValue(const std::string &text, std::string_view expected,
                               const std::string &path);

// The same readers applied to a required member of an object (checked with object()),
// with the member's path in messages: memberDouble(point, "rpm", "points[1]") reads
// points[1].rpm.
double memberDouble(const Json &object, const char *name, const std::string &path);
std::int64_t memberInt64(const Json &object, const char *name, const std::string &path);
bool memberBool(const Json &object, const char *name, const std::string &path);
std::string memberString(const Json &object, const char *name, const std::string &path);
// An optional number member: nothing when it is missing.
std::optional<double> optionalDouble(const Json &object, const char *name, const std::string &path);

// A string naming one case of an enumeration by its raw value; another string is
// invalidValue, listing the accepted texts.
template <class E, std::size_t N>
E toCase(const Json &value, const std::array<E, N> &cases, const std::string &path) {
    std::string text = toString(value, path);
    if (std::optional<E> found = caseWithRawValue(cases, text)) {
        return *found;
    }
    std::string accepted = "one of ";
    for (std::size_t i = 0; i < N; ++i) {
        accepted += i == 0 ? "" : ", ";
        accepted += rawValue(cases[i]);
    }
    invalidValue(text, accepted, path);
}

template <class E, std::size_t N>
E memberCase(const Json &object, const char *name, const std::array<E, N> &cases,
             const std::string &path) {
    return toCase(member(object, name, path), cases, child(path, name));
}

}  // namespace json

}  // namespace ostrel
