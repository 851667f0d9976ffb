// The JSON coding of fan policies, the same on both sides of the helper link and in the
// policies file:
//   {"auto":{}}   {"fixed":{"rpm":2000}}   {"fixed":{"rpm":"inf"}}
//   {"curve":{"_0":{"points":[{"temperature":50,"rpm":0},...],"sensor":"cpu"}}}
// Output is compact. Numbers JSON cannot carry travel as the strings "inf", "-inf" and "nan"
// (a fixed speed of +infinity is the fan's maximum) and are read back from them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ostrel/fan_policy.h"
#include "ostrel/json.h"

namespace ostrel::PolicyCoding {

Json toJson(const FanPolicy &policy);
// Decodes one policy. Members other than "auto", "fixed" and "curve" are ignored at the top
// and unknown members inside are ignored too; exactly one of the three must be present, or
// DecodingError (typeMismatch) "Invalid number of keys found, expected one.". A missing or
// mistyped member or an unknown sensor text is a DecodingError naming it. Neither sorts
// curve points nor validates: whoever accepts a decoded policy validates it.
FanPolicy fromJson(const Json &json);

// The compact JSON text of a policy. Never fails.
std::string encode(const FanPolicy &policy);
// A policy from JSON text; any bytes that are not a policy throw DecodingError.
FanPolicy decode(std::string_view data);

// A map of policies as one JSON object keyed by the fan index in decimal:
// {"0":{"fixed":{"rpm":2500}},"1":{"fixed":{"rpm":"inf"}}}; "{}" when empty. Never fails.
std::string encodeMap(const PolicyMap &policies);
// A JSON object of policies decoded as a whole, keyed by the members' names as written;
// throws DecodingError when the text is not an object or any value is not a policy. Which
// names are acceptable fan indices is the reader's choice (see fanIndex).
std::map<std::string, FanPolicy> decodeMap(std::string_view data);

// The fan index a map key names when it is written canonically: decimal digits only, no
// sign, no leading zero (but "0" itself), within the signed 64-bit range. "+1", "01", "-0",
// "-1" and "" give nothing.
std::optional<std::int64_t> fanIndex(std::string_view key);

}  // namespace ostrel::PolicyCoding
