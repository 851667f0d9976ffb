// Any bytes as policy data, as a daemon receives them: decoding either fails with a
// DecodingError or gives a policy whose encoding is stable across another round trip.
// The same bytes go through the map decoder, as a client reads them, and are loaded as the
// policies file: loading never throws and keeps only valid policies of canonical fans.

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/policy_coding.h"
#include "ostrel/policy_store.h"

namespace {

using ostrel::fuzz::check;

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
    platform::FakeFiles files;
    files.put("/policies.json", std::string(text));
    for (const auto &[fan, policy] : PolicyStore::load("/policies.json", files)) {
        check(fan >= 0);
        policy.validate();  // anything invalid must have been dropped: a throw aborts
    }
    return 0;
}
