// The virtual Mac's physics: CPU and GPU power from load, first-order thermal nodes, fans
// with inertia under the firmware's curve or a written target, and a battery. Pure and
// deterministic: time passes only in fixed steps of kStep seconds, driven by the caller.
// The model and its parameters are documented in docs/vsmc-physics.md.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "ostrel/vsmc/params.h"
#include "ostrel/vsmc/scenario.h"

namespace ostrel::vsmc {

// The thermal nodes, in the order of SimulationState::temperature.
enum class Node { cpu, gpu, proximity, heatsink, board, battery };
inline constexpr std::size_t kNodeCount = 6;

// What the SMC tells one fan, as its keys read before a step.
struct FanCommand {
    bool manual = false;  // mode key 1 or force bit set
    double written = 0;   // the target key (used in manual mode)
    double min = 0;       // the limit keys; not finite, negative or crossed: the hardware's
    double max = 0;
};

struct FanState {
    double hardwareMin = 0;  // the fan's real range, from the profile
    double hardwareMax = 0;
    bool manual = false;
    double target = 0;  // what the fan is driven to, after the firmware's clamp
    double actual = 0;  // its speed, following the target with inertia
    bool stalled = false;
    bool spinning = true;  // automatic fans that may stop at idle (Apple silicon)
};

struct BatteryState {
    bool present = false;
    double design = 0;     // mAh
    double full = 0;       // mAh
    double remaining = 0;  // mAh
    double cycles = 0;
    double cells = 3;
    double chargeCurrent = 0;  // mA while charging below 80 %
    bool external = true;      // the adapter is connected
    bool percentCapacity = false;
    double milliamps = 0;  // signed: positive while charging, negative while discharging
    double volts = 0;
    double drained = 0;  // mAh discharged toward the next cycle
};

struct SimulationState {
    std::uint64_t steps = 0;  // steps since power-on; time is steps * kStep
    double cpuLoad = 0;       // 0 to 1
    double gpuLoad = 0;
    double ambient = 0;
    std::array<double, kNodeCount> temperature{};
    double cpuPower = 0;  // after throttling
    double gpuPower = 0;
    std::vector<FanState> fans;
    BatteryState battery;

    double node(Node n) const { return temperature[static_cast<std::size_t>(n)]; }
};

// A scenario being played, with the values in effect when it started.
struct PlayingScenario {
    Scenario scenario;
    std::uint64_t startStep = 0;
    ScenarioValues start;
};

class Simulation {
  public:
    static constexpr double kStep = 0.1;  // seconds of simulated time per step

    Simulation(const MachineParams &params, SimulationState initial);

    // Advances one step with one command per fan (missing commands: automatic).
    void step(std::span<const FanCommand> commands);

    // A quantity as a bound key or sensor service shows it, before noise.
    double value(Source source) const;
    // The hottest CPU temperature the firmware sees: the die plus the largest offset of
    // the keys that sit on it (set by the machine from its bindings).
    double hottestCpu() const { return state_.node(Node::cpu) + hottestOffset_; }
    void setHottestOffset(double offset) { hottestOffset_ = offset; }

    double time() const { return static_cast<double>(state_.steps) * kStep; }
    const SimulationState &state() const { return state_; }
    SimulationState &state() { return state_; }
    const MachineParams &params() const { return params_; }

    // Loads are clamped to 0..1. Setting them by hand stops a playing scenario.
    void setLoad(double cpu, double gpu);
    void setAmbient(double celsius) { state_.ambient = celsius; }
    void setExternalPower(bool connected) { state_.battery.external = connected; }
    void play(Scenario scenario);
    void stopScenario() { scenario_.reset(); }
    const std::optional<PlayingScenario> &scenario() const { return scenario_; }

  private:
    void applyScenario();
    void stepFans(std::span<const FanCommand> commands);
    void stepHeat();
    void stepBattery();

    MachineParams params_;
    SimulationState state_;
    std::optional<PlayingScenario> scenario_;
    double hottestOffset_ = 0;
    int substeps_ = 1;  // heat-flow substeps per step, so stiff profiles stay stable
};

// Deterministic noise in -1..1 for one channel at one step of one seed's run.
double noise(std::uint64_t seed, std::uint64_t step, std::uint32_t channel);

}  // namespace ostrel::vsmc
