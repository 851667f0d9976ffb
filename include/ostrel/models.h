// The value types of one sample: sensor groups and quantities, readings, fan and battery
// state, and the snapshot with the derived temperatures that fan control uses. All plain
// values, immutable once built, with JSON forms whose member names are the field names.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/fan_curve.h"
#include "ostrel/json.h"

namespace ostrel {

// Where a sensor sits. The raw value ("CPU", "GPU", "Memory", "Storage", "Battery",
// "Ambient", "Board", "Other") is both the display name and the JSON form.
enum class SensorGroup { cpu, gpu, memory, storage, battery, ambient, board, other };

inline constexpr std::array<SensorGroup, 8> allSensorGroups = {
    SensorGroup::cpu,     SensorGroup::gpu,     SensorGroup::memory, SensorGroup::storage,
    SensorGroup::battery, SensorGroup::ambient, SensorGroup::board,  SensorGroup::other};

std::string_view rawValue(SensorGroup group);
// Exactly one of the eight raw values (case-sensitive), or nothing.
std::optional<SensorGroup> sensorGroupFromRaw(std::string_view text);

// What a sensor measures; the raw value ("temperature", "power", "voltage", "current") is
// the JSON form.
enum class Quantity { temperature, power, voltage, current };

inline constexpr std::array<Quantity, 4> allQuantities = {Quantity::temperature, Quantity::power,
                                                          Quantity::voltage, Quantity::current};

std::string_view rawValue(Quantity quantity);
// "°C" (UTF-8), "W", "V", "A".
std::string_view unit(Quantity quantity);
std::optional<Quantity> quantityFromRaw(std::string_view text);

// One value of one SMC or temperature-service sensor.
struct Reading {
    std::string key;  // the SMC key, or "hid:" and the sensor's display name
    std::string name;
    SensorGroup group = SensorGroup::other;
    double value = 0;    // in the unit of the reading's quantity
    bool known = false;  // the catalog knows the key; derived values use known readings only

    const std::string &id() const { return key; }
    bool operator==(const Reading &) const = default;
};

// The state of one fan.
struct FanReading {
    std::int64_t id = 0;  // zero-based fan index
    std::string name;
    double rpm = 0;  // measured speed
    double min = 0;  // limits; 0 when they could not be read
    double max = 0;
    std::optional<double> target;  // only under manual control, when readable
    bool manual = false;

    // Where the speed sits between the limits, from 0 to 1; 0 unless min < max (and for an
    // unreadable NaN speed).
    double load() const;
    bool operator==(const FanReading &) const = default;
};

// Battery state; every measured value may be missing.
struct BatteryInfo {
    std::optional<double> percent;      // 0 to 100
    std::optional<double> temperature;  // °C
    std::optional<double> voltage;      // V
    std::optional<double> amperage;     // A, negative while discharging
    std::optional<std::int64_t> cycleCount;
    std::optional<double> health;  // present full capacity / design capacity, 0 to 1
    bool charging = false;
    bool externalPower = false;

    // voltage × amperage in watts, when both are known.
    std::optional<double> power() const;
    bool operator==(const BatteryInfo &) const = default;
};

// One sample, built complete and never changed. The derived values look only at "usable"
// temperatures: readings whose `known` is set and whose value is finite. None of them
// fails or allocates; a missing value is std::nullopt.
class Snapshot {
  public:
    using Clock = std::chrono::system_clock;

    Snapshot() = default;  // empty, at the epoch
    Snapshot(Clock::time_point timestamp, std::vector<Reading> temperatures,
             std::vector<FanReading> fans, std::vector<Reading> power,
             std::vector<Reading> voltages, std::vector<Reading> currents,
             std::optional<BatteryInfo> battery);

    Clock::time_point timestamp() const { return timestamp_; }
    const std::vector<Reading> &temperatures() const { return temperatures_; }
    const std::vector<FanReading> &fans() const { return fans_; }  // in fan index order
    const std::vector<Reading> &power() const { return power_; }
    const std::vector<Reading> &voltages() const { return voltages_; }
    const std::vector<Reading> &currents() const { return currents_; }
    const std::optional<BatteryInfo> &battery() const { return battery_; }

    // The largest usable temperature in the group (the first of equal values).
    std::optional<double> maxTemperature(SensorGroup group) const;
    // The mean of the usable temperatures in the group, summed in list order.
    std::optional<double> averageTemperature(SensorGroup group) const;
    std::optional<double> cpu() const;  // maxTemperature(cpu)
    std::optional<double> gpu() const;  // maxTemperature(gpu)
    // The largest usable temperature of any group.
    std::optional<double> maximumKnownTemperature() const;
    // The larger of cpu() and gpu() when either exists (other groups are then not
    // consulted), else maximumKnownTemperature().
    std::optional<double> hottest() const;
    // The temperature a curve is evaluated at: cpu() or gpu() for those sensors, falling
    // back to hottest() when the group has no usable reading; hottest() for max. Nothing
    // means no usable temperature at all.
    std::optional<double> temperature(CurveSensor sensor) const;
    // The first PSTR reading's value, else the first PDTR's (whether known or not).
    std::optional<double> systemPower() const;
    // The first PCPC reading's value, else PCPT's, else PC0R's.
    std::optional<double> cpuPower() const;

    bool operator==(const Snapshot &) const = default;

  private:
    Clock::time_point timestamp_{};
    std::vector<Reading> temperatures_;
    std::vector<FanReading> fans_;
    std::vector<Reading> power_;
    std::vector<Reading> voltages_;
    std::vector<Reading> currents_;
    std::optional<BatteryInfo> battery_;
};

// Timestamps in JSON: ISO 8601 in UTC with milliseconds, "2026-11-22T10:15:30.123Z"
// (sub-millisecond parts are dropped, rounding toward the past).
std::string timestampText(Snapshot::Clock::time_point time);

// The JSON forms (what `ostrel` prints). Absent optionals are left out; derived values
// are never written.
void to_json(Json &json, const Reading &reading);
void to_json(Json &json, const FanReading &fan);
void to_json(Json &json, const BatteryInfo &battery);
void to_json(Json &json, const Snapshot &snapshot);

}  // namespace ostrel
