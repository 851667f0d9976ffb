#include "ostrel/battery.h"

#include <algorithm>
#include <cmath>

#include "csmc/transport.h"
#include "ostrel/battery_sysfs.h"
#include "ostrel/platform/numbers.h"

namespace ostrel::Battery {

namespace {

// The three lookup rules: a property is taken from the top level first, then from the
// nested "BatteryData" dictionary, and must be a finite number (booleans count as 0 and
// 1, as they do in the registry).
class Properties {
  public:
    explicit Properties(const nlohmann::json &top) : top_(top) {
        if (top.is_object()) {
            auto nested = top.find("BatteryData");
            if (nested != top.end() && nested->is_object()) {
                nested_ = &*nested;
            }
        }
    }

    std::optional<double> number(const char *name) const {
        for (const nlohmann::json *dict : {&top_, nested_}) {
            if (dict == nullptr || !dict->is_object()) {
                continue;
            }
            auto it = dict->find(name);
            if (it == dict->end()) {
                continue;
            }
            if (it->is_boolean()) {
                return it->get<bool>() ? 1.0 : 0.0;
            }
            if (it->is_number() && std::isfinite(it->get<double>())) {
                return it->get<double>();
            }
        }
        return std::nullopt;
    }

    std::optional<std::int64_t> integer(const char *name) const {
        auto value = number(name);
        return value ? numbers::truncatedInt64(*value) : std::nullopt;
    }

    std::optional<std::int64_t> nonNegative(const char *name) const {
        auto value = integer(name);
        if (!value || *value < 0) {
            return std::nullopt;
        }
        return value;
    }

    bool truth(const char *name) const { return number(name).value_or(0) != 0; }

  private:
    const nlohmann::json &top_;
    const nlohmann::json *nested_ = nullptr;
};

}  // namespace

BatteryInfo parse(const nlohmann::json &properties) {
    Properties p(properties);
    BatteryInfo info;
    auto current = p.nonNegative("CurrentCapacity");
    auto max = p.integer("MaxCapacity");
    if (current && max && *max >= 1) {
        info.percent =
            std::min(static_cast<double>(*current) / static_cast<double>(*max) * 100.0, 100.0);
    }
    std::optional<std::int64_t> capacity = p.nonNegative("AppleRawMaxCapacity");
    if (!capacity) {
        capacity = p.nonNegative("NominalChargeCapacity");
    }
    if (!capacity) {
        capacity = p.nonNegative("FullChargeCapacity");
    }
    auto design = p.integer("DesignCapacity");
    if (capacity && design && *design >= 1) {
        info.health = std::min(static_cast<double>(*capacity) / static_cast<double>(*design), 1.0);
    }
    if (auto milliamps = p.integer("Amperage")) {
        info.amperage = static_cast<double>(*milliamps) / 1000.0;
    }
    if (auto centidegrees = p.nonNegative("Temperature")) {
        info.temperature = static_cast<double>(*centidegrees) / 100.0;
    }
    if (auto millivolts = p.integer("Voltage"); millivolts && *millivolts >= 1) {
        info.voltage = static_cast<double>(*millivolts) / 1000.0;
    }
    info.cycleCount = p.nonNegative("CycleCount");
    info.charging = p.truth("IsCharging");
    info.externalPower = p.truth("ExternalConnected");
    return info;
}

std::optional<BatteryInfo> read(const SMC *smc, const SystemAccess &system) {
    std::optional<nlohmann::json> properties;
    if (smc != nullptr) {
        properties = csmc::transportOf(smc->conn()).batteryProperties();
    }
    if (!properties) {
        properties = batteryPropertiesFromSysfs(system.paths().sysfs(), *system.files);
    }
    if (!properties || !properties->is_object()) {
        return std::nullopt;  // no battery (a JSON null from a virtual desktop)
    }
    return parse(*properties);
}

}  // namespace ostrel::Battery
