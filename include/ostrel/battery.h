// The internal battery's state, from its property dictionary.
//
// The dictionary has the keys and units of the battery's registry entry on a Mac
// (CurrentCapacity, MaxCapacity, Voltage in mV, Amperage in mA, Temperature in 0.01 degC,
// ...), with an optional nested "BatteryData" dictionary consulted second. On Linux it is
// built from the power-supply files (battery_sysfs.h); a virtual Mac hands over its own.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>

#include "ostrel/models.h"
#include "ostrel/smc.h"
#include "ostrel/system_access.h"

namespace ostrel::Battery {

// Every field that can be computed from the dictionary; the others stay empty (false for
// the two flags). Never fails, whatever the dictionary holds.
BatteryInfo parse(const nlohmann::json &properties);

// The battery of the machine `smc` is connected to: the virtual Mac's dictionary when the
// connection is on one, otherwise the power-supply files under the sysfs root. Nothing
// when the machine has no battery. One query per call, no caching.
std::optional<BatteryInfo> read(const SMC *smc, const SystemAccess &system);

}  // namespace ostrel::Battery
