// Any bytes as a virtual Mac profile (a file a user hands to ostrel-vsmc or OSTREL_SMC):
// parsing either fails with ProfileError or gives a profile that is written out as text
// that parses back to the same machine, and that the virtual Mac can run.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/profile.h"

using ostrel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel::vsmc;
    Profile profile;
    try {
        profile =
            parseProfile(std::string_view(reinterpret_cast<const char *>(data), size), "fuzz");
    } catch (const ProfileError &) {
        return 0;
    }
    Profile again = parseProfile(formatProfile(profile), "again");  // must not throw
    check(again.model == profile.model);
    check(again.keys == profile.keys);
    Machine machine(profile);
    machine.advance(10.0);
    return 0;
}
