#include "ostrel/models.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace ostrel {

namespace {

constexpr std::array<std::string_view, 8> kGroupTexts = {"CPU",     "GPU",     "Memory", "Storage",
                                                         "Battery", "Ambient", "Board",  "Other"};
constexpr std::array<std::string_view, 4> kQuantityTexts = {"temperature", "power", "voltage",
                                                            "current"};
constexpr std::array<std::string_view, 4> kUnits = {
    "\xC2\xB0"
    "C",
    "W", "V", "A"};

bool usable(const Reading &reading) {
    return reading.known && std::isfinite(reading.value);
}

// Keeps the first of equal values, as the maximum over a list does.
void keepLarger(std::optional<double> &best, double value) {
    if (!best || value > *best) {
        best = value;
    }
}

std::optional<double> firstValue(const std::vector<Reading> &readings,
                                 std::initializer_list<std::string_view> keys) {
    for (std::string_view key : keys) {
        auto found = std::find_if(readings.begin(), readings.end(),
                                  [key](const Reading &reading) { return reading.key == key; });
        if (found != readings.end()) {
            return found->value;
        }
    }
    return std::nullopt;
}

}  // namespace

std::string_view rawValue(SensorGroup group) {
    return kGroupTexts[static_cast<std::size_t>(group)];
}

std::optional<SensorGroup> sensorGroupFromRaw(std::string_view text) {
    return caseWithRawValue(allSensorGroups, text);
}

std::string_view rawValue(Quantity quantity) {
    return kQuantityTexts[static_cast<std::size_t>(quantity)];
}

std::string_view unit(Quantity quantity) {
    return kUnits[static_cast<std::size_t>(quantity)];
}

std::optional<Quantity> quantityFromRaw(std::string_view text) {
    return caseWithRawValue(allQuantities, text);
}

double FanReading::load() const {
    double load = (rpm - min) / (max - min);
    if (!(min < max) || std::isnan(load)) {
        return 0;
    }
    return std::clamp(load, 0.0, 1.0);
}

std::optional<double> BatteryInfo::power() const {
    if (voltage && amperage) {
        return *voltage * *amperage;
    }
    return std::nullopt;
}

Snapshot::Snapshot(Clock::time_point timestamp, std::vector<Reading> temperatures,
                   std::vector<FanReading> fans, std::vector<Reading> power,
                   std::vector<Reading> voltages, std::vector<Reading> currents,
                   std::optional<BatteryInfo> battery)
    : timestamp_(timestamp),
      temperatures_(std::move(temperatures)),
      fans_(std::move(fans)),
      power_(std::move(power)),
      voltages_(std::move(voltages)),
      currents_(std::move(currents)),
      battery_(std::move(battery)) {}

std::optional<double> Snapshot::maxTemperature(SensorGroup group) const {
    std::optional<double> best;
    for (const Reading &reading : temperatures_) {
        if (reading.group == group && usable(reading)) {
            keepLarger(best, reading.value);
        }
    }
    return best;
}

std::optional<double> Snapshot::averageTemperature(SensorGroup group) const {
    double sum = 0;
    std::size_t count = 0;
    for (const Reading &reading : temperatures_) {
        if (reading.group == group && usable(reading)) {
            sum += reading.value;
            ++count;
        }
    }
    if (count == 0) {
        return std::nullopt;
    }
    return sum / static_cast<double>(count);
}

std::optional<double> Snapshot::cpu() const {
    return maxTemperature(SensorGroup::cpu);
}

std::optional<double> Snapshot::gpu() const {
    return maxTemperature(SensorGroup::gpu);
}

std::optional<double> Snapshot::maximumKnownTemperature() const {
    std::optional<double> best;
    for (const Reading &reading : temperatures_) {
        if (usable(reading)) {
            keepLarger(best, reading.value);
        }
    }
    return best;
}

std::optional<double> Snapshot::hottest() const {
    // One pass for all three maxima: this runs on every control tick.
    std::optional<double> cpu, gpu, any;
    for (const Reading &reading : temperatures_) {
        if (!usable(reading)) {
            continue;
        }
        if (reading.group == SensorGroup::cpu) {
            keepLarger(cpu, reading.value);
        } else if (reading.group == SensorGroup::gpu) {
            keepLarger(gpu, reading.value);
        }
        keepLarger(any, reading.value);
    }
    if (cpu && gpu) {
        return std::max(*cpu, *gpu);
    }
    if (cpu || gpu) {
        return cpu ? cpu : gpu;
    }
    return any;
}

std::optional<double> Snapshot::temperature(CurveSensor sensor) const {
    std::optional<double> value;
    if (sensor == CurveSensor::cpu) {
        value = cpu();
    } else if (sensor == CurveSensor::gpu) {
        value = gpu();
    }
    return value ? value : hottest();
}

std::optional<double> Snapshot::systemPower() const {
    return firstValue(power_, {"PSTR", "PDTR"});
}

std::optional<double> Snapshot::cpuPower() const {
    return firstValue(power_, {"PCPC", "PCPT", "PC0R"});
}

std::string timestampText(Snapshot::Clock::time_point time) {
    using namespace std::chrono;
    auto milliseconds = floor<std::chrono::milliseconds>(time);
    auto midnight = floor<days>(milliseconds);
    year_month_day date{midnight};
    hh_mm_ss clock{milliseconds - midnight};
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", int(date.year()),
                       unsigned(date.month()), unsigned(date.day()), clock.hours().count(),
                       clock.minutes().count(), clock.seconds().count(),
                       clock.subseconds().count());
}

namespace {

void putOptional(Json &json, const char *name, const std::optional<double> &value) {
    if (value) {
        json[name] = json::number(*value);
    }
}

}  // namespace

void to_json(Json &json, const Reading &reading) {
    json = Json{{"key", reading.key},
                {"name", reading.name},
                {"group", rawValue(reading.group)},
                {"value", json::number(reading.value)},
                {"known", reading.known}};
}

void to_json(Json &json, const FanReading &fan) {
    json = Json{{"id", fan.id},
                {"name", fan.name},
                {"rpm", json::number(fan.rpm)},
                {"min", json::number(fan.min)},
                {"max", json::number(fan.max)}};
    putOptional(json, "target", fan.target);
    json["manual"] = fan.manual;
}

void to_json(Json &json, const BatteryInfo &battery) {
    json = Json::object();
    putOptional(json, "percent", battery.percent);
    putOptional(json, "temperature", battery.temperature);
    putOptional(json, "voltage", battery.voltage);
    putOptional(json, "amperage", battery.amperage);
    if (battery.cycleCount) {
        json["cycleCount"] = *battery.cycleCount;
    }
    putOptional(json, "health", battery.health);
    json["charging"] = battery.charging;
    json["externalPower"] = battery.externalPower;
}

void to_json(Json &json, const Snapshot &snapshot) {
    json = Json{{"timestamp", timestampText(snapshot.timestamp())},
                {"temperatures", snapshot.temperatures()},
                {"fans", snapshot.fans()},
                {"power", snapshot.power()},
                {"voltages", snapshot.voltages()},
                {"currents", snapshot.currents()}};
    if (snapshot.battery()) {
        json["battery"] = *snapshot.battery();
    }
}

}  // namespace ostrel
