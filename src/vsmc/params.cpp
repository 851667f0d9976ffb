#include "ostrel/vsmc/params.h"

#include <array>
#include <utility>

#include "csmc/smc.h"

namespace ostrel::vsmc {

namespace {

constexpr std::array<std::pair<Source, std::string_view>, 29> kSourceNames{{
    {Source::none, "none"},
    {Source::ambient, "ambient"},
    {Source::cpu, "cpu"},
    {Source::gpu, "gpu"},
    {Source::proximity, "proximity"},
    {Source::heatsink, "heatsink"},
    {Source::board, "board"},
    {Source::battery, "battery"},
    {Source::cpuPower, "cpu-power"},
    {Source::gpuPower, "gpu-power"},
    {Source::systemPower, "system-power"},
    {Source::dcPower, "dc-power"},
    {Source::batteryPower, "battery-power"},
    {Source::dcVoltage, "dc-voltage"},
    {Source::batteryVoltage, "battery-voltage"},
    {Source::cpuVoltage, "cpu-voltage"},
    {Source::dcCurrent, "dc-current"},
    {Source::batteryCurrent, "battery-current"},
    {Source::cpuCurrent, "cpu-current"},
    {Source::batteryMillivolts, "battery-mv"},
    {Source::batteryCellMillivolts, "battery-cell-mv"},
    {Source::batteryMilliamps, "battery-ma"},
    {Source::batteryRemaining, "battery-remaining"},
    {Source::batteryFull, "battery-full"},
    {Source::batteryDesign, "battery-design"},
    {Source::batteryCycles, "battery-cycles"},
    {Source::batteryPercent, "battery-percent"},
    {Source::batteryMinutesToFull, "battery-minutes-to-full"},
    {Source::externalPower, "external-power"},
}};

using P = MachineParams;
const MachineField kPhysics[] = {
    {"ambient", &P::ambient, -30, 60},
    {"cpu-idle-power", &P::cpuIdlePower, 0, 1000},
    {"cpu-max-power", &P::cpuMaxPower, 0, 2000},
    {"gpu-idle-power", &P::gpuIdlePower, 0, 1000},
    {"gpu-max-power", &P::gpuMaxPower, 0, 2000},
    {"board-power", &P::boardPower, 0, 1000},
    {"cpu-throttle", &P::cpuThrottle, 40, 150},
    {"cpu-capacity", &P::cpuCapacity, 0.1, 1e6},
    {"gpu-capacity", &P::gpuCapacity, 0.1, 1e6},
    {"proximity-capacity", &P::proximityCapacity, 0.1, 1e6},
    {"heatsink-capacity", &P::heatsinkCapacity, 0.1, 1e6},
    {"board-capacity", &P::boardCapacity, 0.1, 1e6},
    {"battery-capacity", &P::batteryCapacity, 0.1, 1e6},
    {"cpu-heatsink", &P::cpuHeatsink, 0, 1000},
    {"gpu-heatsink", &P::gpuHeatsink, 0, 1000},
    {"cpu-proximity", &P::cpuProximity, 0, 1000},
    {"proximity-board", &P::proximityBoard, 0, 1000},
    {"heatsink-board", &P::heatsinkBoard, 0, 1000},
    {"board-ambient", &P::boardAmbient, 0, 1000},
    {"board-battery", &P::boardBattery, 0, 1000},
    {"battery-ambient", &P::batteryAmbient, 0, 1000},
    {"heatsink-ambient", &P::heatsinkAmbient, 0, 1000},
    {"airflow", &P::airflow, 0, 1000},
    {"fan-spin-up", &P::fanSpinUp, 0.05, 120},
    {"fan-spin-down", &P::fanSpinDown, 0.05, 120},
    {"sensor-noise", &P::sensorNoise, 0, 10},
    {"fan-noise", &P::fanNoise, 0, 500},
    {"cpu-load", &P::cpuLoad, 0, 1},
    {"gpu-load", &P::gpuLoad, 0, 1},
    {"cpu-voltage-idle", &P::cpuVoltageIdle, 0.1, 5},
    {"cpu-voltage-max", &P::cpuVoltageMax, 0.1, 5},
    {"dc-voltage", &P::dcVoltage, 1, 400},
};

const MachineField kFirmware[] = {
    {"fan-curve-low", &P::fanCurveLow, 0, 150},
    {"fan-curve-high", &P::fanCurveHigh, 0, 150},
    {"fan-stop", &P::fanStop, 0, 150},
    {"fan-start", &P::fanStart, 0, 150},
    {"unlock-refusals", &P::unlockRefusals, 0, 1e6},
};

using B = BatteryParams;
const BatteryField kBattery[] = {
    {"design-capacity", &B::designCapacity, 1, 1e6},
    {"full-capacity", &B::fullCapacity, 1, 1e6},
    {"remaining", &B::remaining, 0, 1e6},
    {"cycles", &B::cycles, 0, 1e6},
    {"cells", &B::cells, 1, 12},
    {"charge-current", &B::chargeCurrent, 0, 20000},
    {"external", &B::external, 0, 1},
    {"percent-capacity", &B::percentCapacity, 0, 1},
};

// Which types a naming rule applies to: measured values (fixed point and floats), or any
// numeric type (the battery's integer keys, flags).
enum class Types { measured, numeric };

struct Rule {
    const char *pattern;  // four characters; '?' matches any, a trailing '*' the rest
    Types types;
    Source source;
    double offset;
    double scale;
    bool spread;  // per-key spread so that cores and clusters do not read alike
};

// First match wins. The offsets place a sensor relative to the node it sits on.
const Rule kRules[] = {
    {"TCG*", Types::measured, Source::gpu, -3, 1, true},
    {"TC?P", Types::measured, Source::proximity, 0, 1, false},
    {"TCS*", Types::measured, Source::cpu, -2, 1, false},
    {"TC*", Types::measured, Source::cpu, 0, 1, true},
    {"Tp*", Types::measured, Source::cpu, 0, 1, true},
    {"Te*", Types::measured, Source::cpu, -4, 1, true},
    {"TG?P", Types::measured, Source::gpu, -4, 1, false},
    {"TG*", Types::measured, Source::gpu, 0, 1, true},
    {"Tg*", Types::measured, Source::gpu, 0, 1, true},
    {"TB*", Types::measured, Source::battery, 0, 1, true},
    {"Th*", Types::measured, Source::heatsink, 0, 1, true},
    {"TH*", Types::measured, Source::board, 3, 1, true},
    {"TM*", Types::measured, Source::board, 5, 1, true},
    {"Tm*", Types::measured, Source::board, 4, 1, true},
    {"TW*", Types::measured, Source::board, 3, 1, false},
    {"TP*", Types::measured, Source::board, 8, 1, true},
    {"TA*", Types::measured, Source::ambient, 3, 1, false},
    {"Ta*", Types::measured, Source::ambient, 4, 1, true},
    {"TL*", Types::measured, Source::board, -2, 1, false},
    {"Ts*", Types::measured, Source::board, -5, 1, true},
    {"T*", Types::measured, Source::board, 0, 1, true},
    {"PSTR", Types::measured, Source::systemPower, 0, 1, false},
    {"PDTR", Types::measured, Source::dcPower, 0, 1, false},
    {"PDBR", Types::measured, Source::dcPower, 0, 0.98, false},
    {"PPBR", Types::measured, Source::batteryPower, 0, 1, false},
    {"PCPC", Types::measured, Source::cpuPower, 0, 0.85, false},
    {"PCPT", Types::measured, Source::cpuPower, 0, 1, false},
    {"PCTR", Types::measured, Source::cpuPower, 0, 1.05, false},
    {"PC0C", Types::measured, Source::cpuPower, 0, 0.9, false},
    {"PC0R", Types::measured, Source::cpuPower, 0, 0.95, false},
    {"PHPC", Types::measured, Source::cpuPower, 0, 0.4, false},
    {"PCPG", Types::measured, Source::gpuPower, 0, 0.15, false},
    {"PG0R", Types::measured, Source::gpuPower, 0, 1, false},
    {"PGTR", Types::measured, Source::gpuPower, 0, 0.95, false},
    {"VD0R", Types::measured, Source::dcVoltage, 0, 1, false},
    {"VP0R", Types::measured, Source::batteryVoltage, 0, 1, false},
    {"VBAT", Types::measured, Source::batteryVoltage, 0, 1, false},
    {"VC0C", Types::measured, Source::cpuVoltage, 0, 1, false},
    {"ID0R", Types::measured, Source::dcCurrent, 0, 1, false},
    {"IPBR", Types::measured, Source::batteryCurrent, 0, 1, false},
    {"IC0C", Types::measured, Source::cpuCurrent, 0, 1, false},
    {"IC0R", Types::measured, Source::cpuCurrent, 0, 0.1, false},
    {"B0AV", Types::numeric, Source::batteryMillivolts, 0, 1, false},
    {"B0AC", Types::numeric, Source::batteryMilliamps, 0, 1, false},
    {"B0RM", Types::numeric, Source::batteryRemaining, 0, 1, false},
    {"B0FC", Types::numeric, Source::batteryFull, 0, 1, false},
    {"B0DC", Types::numeric, Source::batteryDesign, 0, 1, false},
    {"B0CT", Types::numeric, Source::batteryCycles, 0, 1, false},
    {"B0TF", Types::numeric, Source::batteryMinutesToFull, 0, 1, false},
    {"BRSC", Types::numeric, Source::batteryPercent, 0, 1, false},
    {"BC?V", Types::numeric, Source::batteryCellMillivolts, 0, 1, false},
    {"ACIN", Types::numeric, Source::externalPower, 0, 1, false},
};

bool matches(const char *pattern, std::uint32_t key) {
    for (int i = 0; i < 4; ++i) {
        char p = pattern[i];
        if (p == '*') {
            return true;
        }
        auto c = static_cast<char>((key >> (24 - 8 * i)) & 0xFF);
        if (p == '\0' || (p != '?' && p != c)) {
            return false;
        }
    }
    return pattern[4] == '\0';
}

bool isMeasuredType(std::uint32_t type) {
    auto first = static_cast<char>(type >> 24);
    auto second = static_cast<char>((type >> 16) & 0xFF);
    return type == smc_fourcc("flt ") || (first == 's' && second == 'p') ||
           (first == 'f' && second == 'p');
}

bool isNumericType(std::uint32_t type) {
    double ignored = 0;
    std::uint8_t zero[4]{};
    // Every numeric type the codec knows decodes zero bytes of some size up to 4.
    for (std::uint32_t size : {1u, 2u, 4u}) {
        if (smc_decode_double(type, zero, size, &ignored)) {
            return true;
        }
    }
    return false;
}

// A spread of -1.5 to +1.5 degC derived from the key, the same on every run.
double spreadOf(std::uint32_t key) {
    std::uint64_t x = key * 0x9E3779B97F4A7C15ull;
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 29;
    return (static_cast<double>(x % 3001) / 1000.0) - 1.5;
}

}  // namespace

std::string_view sourceName(Source source) {
    for (const auto &[s, name] : kSourceNames) {
        if (s == source) {
            return name;
        }
    }
    return "none";
}

std::optional<Source> sourceFromName(std::string_view name) {
    for (const auto &[s, n] : kSourceNames) {
        if (n == name) {
            return s;
        }
    }
    return std::nullopt;
}

bool isTemperature(Source source) {
    return source >= Source::ambient && source <= Source::battery;
}

std::span<const MachineField> physicsFields() {
    return kPhysics;
}
std::span<const MachineField> firmwareFields() {
    return kFirmware;
}
std::span<const BatteryField> batteryFields() {
    return kBattery;
}

std::optional<Binding> defaultBinding(std::uint32_t key, std::uint32_t type) {
    for (const Rule &rule : kRules) {
        if (!matches(rule.pattern, key)) {
            continue;
        }
        bool typeFits = rule.types == Types::measured ? isMeasuredType(type) : isNumericType(type);
        if (!typeFits) {
            return std::nullopt;
        }
        return Binding{key, rule.source, rule.offset + (rule.spread ? spreadOf(key) : 0.0),
                       rule.scale};
    }
    return std::nullopt;
}

}  // namespace ostrel::vsmc
