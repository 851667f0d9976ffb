// Any bytes as a virtual Mac profile (a file a user hands to ostrel-vsmc or OSTREL_SMC):
// parsing either fails with ProfileError or gives a profile that is written out as text
// that parses back to the same machine, and a machine built on it keeps finite
// temperatures, fan speeds and a status report while time passes under full load (a
// value that overflows its type used to poison the physics).

#include <cmath>
#include <cstdint>
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
    check(again.model == profile.model && again.keys == profile.keys &&
          again.params == profile.params && again.bindings == profile.bindings &&
          again.sensors == profile.sensors && again.battery == profile.battery);
    Machine machine(profile);
    machine.setLoad(1, 1);
    machine.advance(10.0);
    const SimulationState &state = machine.simulation().state();
    for (double celsius : state.temperature) {
        check(std::isfinite(celsius));
    }
    for (const FanState &fan : state.fans) {
        check(std::isfinite(fan.actual) && std::isfinite(fan.target));
    }
    check(statusJson(machine).is_object());
    return 0;
}
