// What a profile says about a virtual Mac beyond its key table: the physics and firmware
// parameters, which keys and sensor services follow which simulated quantity, and the
// battery. Plain data with the tables that name each field in the profile text; the
// format is documented in docs/vsmc-profiles.md, the model in docs/vsmc-physics.md.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::vsmc {

// A simulated quantity that a key or a sensor service shows.
enum class Source {
    none,  // the key keeps its value
    // temperatures, degC
    ambient,
    cpu,
    gpu,
    proximity,
    heatsink,
    board,
    battery,
    // power, W
    cpuPower,
    gpuPower,
    systemPower,   // what the machine draws: CPU, GPU and the rest of the board
    dcPower,       // what the power adapter delivers (system plus charging; 0 on battery)
    batteryPower,  // what the battery delivers (0 on the adapter)
    // voltage, V
    dcVoltage,
    batteryVoltage,
    cpuVoltage,
    // current, A
    dcCurrent,
    batteryCurrent,  // positive while discharging, as the board's rail sensor reads it
    cpuCurrent,
    // the battery as its own keys report it
    batteryMillivolts,
    batteryCellMillivolts,
    batteryMilliamps,  // signed: negative while discharging
    batteryRemaining,  // mAh
    batteryFull,       // mAh
    batteryDesign,     // mAh
    batteryCycles,
    batteryPercent,
    batteryMinutesToFull,  // 65535 when not charging
    externalPower,         // 1 on the adapter, 0 on battery
};

// The profile name of a source ("cpu", "battery-mv", ...), and back.
std::string_view sourceName(Source source);
std::optional<Source> sourceFromName(std::string_view name);
bool isTemperature(Source source);

// A key that follows a quantity: value = quantity * scale + offset.
struct Binding {
    std::uint32_t key = 0;
    Source source = Source::none;
    double offset = 0;
    double scale = 1;

    bool operator==(const Binding &) const = default;
};

// A temperature-sensor service (what a real Mac publishes outside the SMC): its name and
// the node it reads, with an offset.
struct SensorService {
    std::string name;
    Source source = Source::cpu;
    double offset = 0;

    bool operator==(const SensorService &) const = default;
};

// Physics and firmware parameters. Defaults describe a 15-inch Intel laptop; every
// built-in profile sets its own. Units: degC, W, J/K (capacities), W/K (conductances),
// seconds, rpm.
struct MachineParams {
    // physics
    double ambient = 23;
    double cpuIdlePower = 3;
    double cpuMaxPower = 45;
    double gpuIdlePower = 1;
    double gpuMaxPower = 30;
    double boardPower = 6;
    double cpuThrottle = 100;  // die temperature at which the CPU starts shedding power
    double cpuCapacity = 15;
    double gpuCapacity = 15;
    double proximityCapacity = 30;
    double heatsinkCapacity = 70;
    double boardCapacity = 400;
    double batteryCapacity = 600;
    double cpuHeatsink = 2.0;
    double gpuHeatsink = 2.0;
    double cpuProximity = 0.4;
    double proximityBoard = 0.8;
    double heatsinkBoard = 0.3;
    double boardAmbient = 0.6;
    double boardBattery = 1.0;
    double batteryAmbient = 0.3;
    double heatsinkAmbient = 0.1;  // natural convection, fans stopped
    double airflow = 0.17;         // W/K more for every 1000 rpm of all fans together
    double fanSpinUp = 1.0;        // time constant of a fan speeding up
    double fanSpinDown = 2.5;      // ... and of one coasting down
    double sensorNoise = 0.2;      // +- degC on temperature keys and sensor services
    double fanNoise = 6;           // +- rpm on actual fan speeds
    double cpuLoad = 0.05;         // load at power-on
    double gpuLoad = 0.02;
    double cpuVoltageIdle = 0.7;
    double cpuVoltageMax = 1.1;
    double dcVoltage = 20;  // the adapter's voltage
    // firmware
    double fanCurveLow = 60;    // automatic fans sit at their minimum below this CPU temperature
    double fanCurveHigh = 90;   // ... and reach their maximum at this one
    double fanStop = 0;         // > 0: automatic fans stop below this (Apple silicon)
    double fanStart = 0;        // ... and start again above this
    double unlockRefusals = 0;  // mode writes refused after the test key is set

    bool operator==(const MachineParams &) const = default;
};

// The battery; every field left empty is taken from the battery keys of the table
// (B0DC, B0FC, B0RM, B0CT, ACIN, B0AC), or else a default.
struct BatteryParams {
    bool present = false;                  // any battery line, or a B0AV key in the table
    std::optional<double> designCapacity;  // mAh
    std::optional<double> fullCapacity;    // mAh
    std::optional<double> remaining;       // mAh
    std::optional<double> cycles;
    std::optional<double> cells;            // in series
    std::optional<double> chargeCurrent;    // mA while charging below 80 %
    std::optional<double> external;         // 1 on the adapter
    std::optional<double> percentCapacity;  // 1: CurrentCapacity/MaxCapacity in percent

    bool operator==(const BatteryParams &) const = default;
};

// One named numeric field of a parameter struct, with its accepted range.
template <typename Struct, typename Member>
struct ParamField {
    std::string_view name;
    Member Struct::*member;
    double min;
    double max;
};

using MachineField = ParamField<MachineParams, double>;
using BatteryField = ParamField<BatteryParams, std::optional<double>>;

// The fields set by `physics NAME VALUE`, `firmware NAME VALUE` and `battery NAME VALUE`.
std::span<const MachineField> physicsFields();
std::span<const MachineField> firmwareFields();
std::span<const BatteryField> batteryFields();

// The binding the virtual Mac gives a key that the profile does not bind, from the key's
// name and type (TC0P as sp78 follows the CPU proximity node, PSTR the system power, B0AV
// the battery voltage, ...), or nothing for keys that keep their value.
std::optional<Binding> defaultBinding(std::uint32_t key, std::uint32_t type);

}  // namespace ostrel::vsmc
