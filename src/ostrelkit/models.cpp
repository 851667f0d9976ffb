#include "ostrel/models.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "ostrel/hash.h"

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

// A left-to-right reader over a timestamp's fixed fields.
struct FieldReader {
    std::string_view text;

    bool literal(char c) {
        if (text.empty() || text.front() != c) {
            return false;
        }
        text.remove_prefix(1);
        return true;
    }
    // Exactly `count` decimal digits.
    bool digits(std::size_t count, int &value) {
        if (text.size() < count) {
            return false;
        }
        value = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (text[i] < '0' || text[i] > '9') {
                return false;
            }
            value = value * 10 + (text[i] - '0');
        }
        text.remove_prefix(count);
        return true;
    }
};

}  // namespace

std::optional<Snapshot::Clock::time_point> timestampFromText(std::string_view text) {
    using namespace std::chrono;
    FieldReader reader{text};
    int y, mo, d, h, mi, s;
    if (!reader.digits(4, y) || !reader.literal('-') || !reader.digits(2, mo) ||
        !reader.literal('-') || !reader.digits(2, d) || !reader.literal('T') ||
        !reader.digits(2, h) || !reader.literal(':') || !reader.digits(2, mi) ||
        !reader.literal(':') || !reader.digits(2, s) || h > 23 || mi > 59 || s > 59) {
        return std::nullopt;
    }
    nanoseconds fraction{0};
    if (reader.literal('.')) {
        int digit = 0;
        int count = 0;
        std::int64_t scale = 100'000'000;
        for (; reader.digits(1, digit); ++count, scale /= 10) {
            if (count == 9) {
                return std::nullopt;
            }
            fraction += nanoseconds(digit * scale);
        }
        if (count == 0) {
            return std::nullopt;
        }
    }
    minutes offset{0};
    bool east = reader.literal('+');
    if (east || reader.literal('-')) {
        int oh, om;
        if (!reader.digits(2, oh) || !reader.literal(':') || !reader.digits(2, om) || oh > 23 ||
            om > 59) {
            return std::nullopt;
        }
        offset = minutes((oh * 60 + om) * (east ? 1 : -1));
    } else if (!reader.literal('Z')) {
        return std::nullopt;
    }
    year_month_day date{year(y), month(static_cast<unsigned>(mo)), day(static_cast<unsigned>(d))};
    if (!reader.text.empty() || !date.ok()) {
        return std::nullopt;
    }
    sys_seconds whole = sys_days(date) + hours(h) + minutes(mi) + seconds(s) - offset;
    // The clock counts nanoseconds in 64 bits, so it spans about 1677 to 2262.
    if (whole <= floor<seconds>(Snapshot::Clock::time_point::min()) ||
        whole >= floor<seconds>(Snapshot::Clock::time_point::max())) {
        return std::nullopt;
    }
    return time_point_cast<Snapshot::Clock::duration>(whole) + fraction;
}

namespace {

void putOptional(Json &json, const char *name, const std::optional<double> &value) {
    if (value) {
        json[name] = json::number(*value);
    }
}

Reading readingFrom(const Json &json, const std::string &path) {
    json::object(json, path);
    Reading reading;
    reading.key = json::memberString(json, "key", path);
    reading.name = json::memberString(json, "name", path);
    reading.group = json::memberCase(json, "group", allSensorGroups, path);
    reading.value = json::memberDouble(json, "value", path);
    reading.known = json::memberBool(json, "known", path);
    return reading;
}

FanReading fanFrom(const Json &json, const std::string &path) {
    json::object(json, path);
    FanReading fan;
    fan.id = json::memberInt64(json, "id", path);
    fan.name = json::memberString(json, "name", path);
    fan.rpm = json::memberDouble(json, "rpm", path);
    fan.min = json::memberDouble(json, "min", path);
    fan.max = json::memberDouble(json, "max", path);
    fan.target = json::optionalDouble(json, "target", path);
    fan.manual = json::memberBool(json, "manual", path);
    return fan;
}

BatteryInfo batteryFrom(const Json &json, const std::string &path) {
    json::object(json, path);
    BatteryInfo battery;
    battery.percent = json::optionalDouble(json, "percent", path);
    battery.temperature = json::optionalDouble(json, "temperature", path);
    battery.voltage = json::optionalDouble(json, "voltage", path);
    battery.amperage = json::optionalDouble(json, "amperage", path);
    if (const Json *cycles = json::optionalMember(json, "cycleCount")) {
        battery.cycleCount = json::toInt64(*cycles, json::child(path, "cycleCount"));
    }
    battery.health = json::optionalDouble(json, "health", path);
    battery.charging = json::memberBool(json, "charging", path);
    battery.externalPower = json::memberBool(json, "externalPower", path);
    return battery;
}

}  // namespace

void to_json(Json &json, const Reading &reading) {
    json = Json{{"key", reading.key},
                {"name", reading.name},
                {"group", rawValue(reading.group)},
                {"value", json::number(reading.value)},
                {"known", reading.known}};
}

void from_json(const Json &json, Reading &reading) {
    reading = readingFrom(json, "");
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

void from_json(const Json &json, FanReading &fan) {
    fan = fanFrom(json, "");
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

void from_json(const Json &json, BatteryInfo &battery) {
    battery = batteryFrom(json, "");
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

void from_json(const Json &json, Snapshot &snapshot) {
    json::object(json, "");
    std::string text = json::memberString(json, "timestamp", "");
    std::optional<Snapshot::Clock::time_point> timestamp = timestampFromText(text);
    if (!timestamp) {
        json::invalidValue(text, "an ISO 8601 time such as 2026-11-22T10:15:30.123Z", "timestamp");
    }
    std::optional<BatteryInfo> battery;
    if (const Json *value = json::optionalMember(json, "battery")) {
        battery = batteryFrom(*value, "battery");
    }
    snapshot = Snapshot(*timestamp, json::listFrom(json, "temperatures", "", readingFrom),
                        json::listFrom(json, "fans", "", fanFrom),
                        json::listFrom(json, "power", "", readingFrom),
                        json::listFrom(json, "voltages", "", readingFrom),
                        json::listFrom(json, "currents", "", readingFrom), battery);
}

}  // namespace ostrel

std::size_t std::hash<ostrel::Reading>::operator()(const ostrel::Reading &reading) const noexcept {
    std::size_t seed = 0;
    ostrel::hashCombine(seed, std::hash<std::string>{}(reading.key));
    ostrel::hashCombine(seed, std::hash<std::string>{}(reading.name));
    ostrel::hashCombine(seed, static_cast<std::size_t>(reading.group));
    ostrel::hashCombine(seed, std::hash<double>{}(reading.value));
    ostrel::hashCombine(seed, reading.known);
    return seed;
}
