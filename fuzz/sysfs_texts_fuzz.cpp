// Any bytes as the sysfs files the battery and the temperature sensors are read from (a
// driver may publish odd text, and on a virtual Mac anything may sit there): the input is
// split at NUL bytes into the contents of a battery, a mains supply and an hwmon chip's
// files. Reading never throws, the battery's figures stay within what a battery can
// report, and temperatures are finite.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "csmc/hid.h"
#include "fuzz_check.h"
#include "ostrel/battery.h"
#include "ostrel/battery_sysfs.h"

using ostrel::fuzz::check;

namespace {

constexpr const char *kFiles[] = {
    "class/power_supply/BAT0/type",
    "class/power_supply/BAT0/scope",
    "class/power_supply/BAT0/status",
    "class/power_supply/BAT0/present",
    "class/power_supply/BAT0/capacity",
    "class/power_supply/BAT0/charge_now",
    "class/power_supply/BAT0/charge_full",
    "class/power_supply/BAT0/charge_full_design",
    "class/power_supply/BAT0/energy_now",
    "class/power_supply/BAT0/energy_full",
    "class/power_supply/BAT0/voltage_now",
    "class/power_supply/BAT0/current_now",
    "class/power_supply/BAT0/temp",
    "class/power_supply/BAT0/cycle_count",
    "class/power_supply/ADP1/type",
    "class/power_supply/ADP1/online",
    "class/hwmon/hwmon0/name",
    "class/hwmon/hwmon0/temp1_input",
    "class/hwmon/hwmon0/temp1_label",
    "class/hwmon/hwmon0/temp10_input",
    "class/hwmon/hwmon1/name",
    "class/hwmon/hwmon1/temp2_input",
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    std::string_view input(reinterpret_cast<const char *>(data), size);
    platform::FakeFiles files;
    for (const char *file : kFiles) {
        std::size_t end = std::min(input.find('\0'), input.size());
        files.put(std::string("/sys/") + file, std::string(input.substr(0, end)));
        input.remove_prefix(std::min(end + 1, input.size()));
    }

    if (auto properties = batteryPropertiesFromSysfs("/sys", files)) {
        check(properties->is_object());
        BatteryInfo battery = Battery::parse(*properties);
        if (battery.percent) {
            check(*battery.percent >= 0 && *battery.percent <= 100);
        }
        for (const auto &value : {battery.temperature, battery.voltage, battery.amperage,
                                  battery.health, battery.power()}) {
            check(!value || std::isfinite(*value));
        }
    }

    auto services = csmc::hwmonServices("/sys", files);
    std::size_t count = services->names().size();
    services->read([&](std::size_t index, std::optional<double> celsius) {
        check(index < count);
        check(!celsius || std::isfinite(*celsius));
        return true;
    });
    return 0;
}
