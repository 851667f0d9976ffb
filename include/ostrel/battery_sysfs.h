// The battery's property dictionary from Linux power-supply files.
//
// Linux publishes the battery under /sys/class/power_supply (a "Battery" entry, plus
// "Mains" and USB entries for external power). This turns those files into the same
// property dictionary the registry of a Mac holds, with its keys and units, so one parser
// serves both: CurrentCapacity and MaxCapacity (their ratio is the charge level),
// FullChargeCapacity and DesignCapacity (their ratio is the health), Voltage in mV,
// Amperage in mA (negative while discharging), Temperature in 0.01 degC, CycleCount,
// IsCharging, ExternalConnected. Files a driver does not provide leave their keys out.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

#include "ostrel/platform/files.h"

namespace ostrel {

// The dictionary for the first present battery under `sysfs`/class/power_supply that is
// the machine's own (its `scope` is not "Device"), or nothing when there is none. Supplies
// of scope "Device" count neither as the battery nor as external power.
std::optional<nlohmann::json> batteryPropertiesFromSysfs(const std::string &sysfs,
                                                         const platform::Files &files);

}  // namespace ostrel
