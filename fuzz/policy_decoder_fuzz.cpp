// Any bytes as policy data, as a daemon receives them: decoding either fails with a
// DecodingError or gives a policy whose encoding is stable across another round trip.
// The same bytes go through the map decoder, as a client or the policy store reads them.

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include "check.h"
#include "ostrel/policy_coding.h"

using ostrel::fuzz::check;

namespace {

void exercise(const ostrel::FanPolicy &policy) {
    std::string encoded = ostrel::PolicyCoding::encode(policy);
    check(ostrel::PolicyCoding::encode(ostrel::PolicyCoding::decode(encoded)) == encoded);
    check(!policy.description().empty());
    try {
        policy.validate();
    } catch (const ostrel::FanControlError &) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    std::string_view text(reinterpret_cast<const char *>(data), size);
    try {
        exercise(PolicyCoding::decode(text));
    } catch (const DecodingError &e) {
        check(e.what()[0] != '\0');
    }
    try {
        for (const auto &[key, policy] : PolicyCoding::decodeMap(text)) {
            static_cast<void>(PolicyCoding::fanIndex(key));
            exercise(policy);
        }
    } catch (const DecodingError &) {
    }
    return 0;
}
