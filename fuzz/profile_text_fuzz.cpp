// Any bytes as a machine profile, as `ostrel-vsmc --profile FILE` or OSTREL_SMC=memory:FILE
// reads them: parsing either fails with a ProfileError or gives a profile that formats
// and parses back to itself, and a machine built on it keeps finite temperatures, fan
// speeds and a status report while time passes under full load.

#include <cmath>
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/profile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel::vsmc;
    using ostrel::fuzz::check;
    std::string text(reinterpret_cast<const char *>(data), size);
    Profile profile;
    try {
        profile = parseProfile(text, "fuzz.profile");
    } catch (const ProfileError &) {
        return 0;
    }
    Profile again = parseProfile(formatProfile(profile), "again");
    check(again.keys == profile.keys && again.params == profile.params &&
          again.bindings == profile.bindings && again.sensors == profile.sensors &&
          again.battery == profile.battery);

    Machine machine(profile);
    machine.setLoad(1, 1);
    machine.advance(5);
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
