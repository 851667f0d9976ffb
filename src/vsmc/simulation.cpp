#include "ostrel/vsmc/simulation.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <utility>

namespace ostrel::vsmc {

namespace {

constexpr double kThrottleBand = 5;          // degC over which a hot CPU sheds its extra power
constexpr double kBatteryResistance = 0.15;  // ohm, internal: heat and voltage sag
constexpr double kCellEmpty = 3.6;           // V per cell at 0 % (resting)
constexpr double kCellSpan = 0.55;           // V per cell from 0 % to 100 %

std::size_t at(Node n) {
    return static_cast<std::size_t>(n);
}

double airflowConductance(const MachineParams &p, double totalRpm) {
    return p.heatsinkAmbient + p.airflow * std::max(totalRpm, 0.0) / 1000.0;
}

// Power between idle and maximum for a load, shed linearly above the throttle point.
double loadPower(double idle, double max, double load, double temperature, double throttle) {
    double factor = std::clamp(1.0 - (temperature - throttle) / kThrottleBand, 0.0, 1.0);
    return idle + (max - idle) * load * factor;
}

}  // namespace

double noise(std::uint64_t seed, std::uint64_t step, std::uint32_t channel) {
    // splitmix64 over the three inputs: the same value for the same run, step and channel,
    // whatever else was read in between.
    std::uint64_t x = seed * 0x9E3779B97F4A7C15ull + step * 0xD1B54A32D192ED03ull + channel;
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 31;
    return static_cast<double>(x >> 11) / static_cast<double>(1ull << 52) - 1.0;
}

Simulation::Simulation(const MachineParams &params, SimulationState initial)
    : params_(params), state_(std::move(initial)) {
    // Sub-steps keep each one well below the fastest node's time constant (with every fan
    // at its maximum, the stiffest the network gets), so that holding the neighbours still
    // within a sub-step costs no accuracy.
    double totalMax = 0;
    for (const FanState &fan : state_.fans) {
        totalMax += fan.hardwareMax;
    }
    const MachineParams &p = params_;
    double gAir = airflowConductance(p, totalMax);
    double tau = std::min({
        p.cpuCapacity / std::max(p.cpuHeatsink + p.cpuProximity, 1e-9),
        p.gpuCapacity / std::max(p.gpuHeatsink, 1e-9),
        p.proximityCapacity / std::max(p.cpuProximity + p.proximityBoard, 1e-9),
        p.heatsinkCapacity / std::max(p.cpuHeatsink + p.gpuHeatsink + p.heatsinkBoard + gAir, 1e-9),
        p.boardCapacity /
            std::max(p.proximityBoard + p.heatsinkBoard + p.boardAmbient + p.boardBattery, 1e-9),
        p.batteryCapacity / std::max(p.boardBattery + p.batteryAmbient, 1e-9),
    });
    // Profiles hold finite values, but a sub-step count is never computed from anything
    // else: converting an infinity or NaN to int would be undefined.
    double needed = std::ceil(kStep / (0.25 * tau));
    substeps_ = std::isfinite(needed) ? static_cast<int>(std::clamp(needed, 1.0, 1000.0)) : 1000;
}

void Simulation::setLoad(double cpu, double gpu) {
    scenario_.reset();
    state_.cpuLoad = std::clamp(cpu, 0.0, 1.0);
    state_.gpuLoad = std::clamp(gpu, 0.0, 1.0);
}

void Simulation::play(Scenario scenario) {
    ScenarioValues start{state_.cpuLoad, state_.gpuLoad, state_.ambient, state_.battery.external};
    scenario_ = PlayingScenario{std::move(scenario), state_.steps, start};
    applyScenario();
}

void Simulation::applyScenario() {
    if (!scenario_) {
        return;
    }
    double elapsed = static_cast<double>(state_.steps - scenario_->startStep) * kStep;
    ScenarioValues v = scenarioAt(scenario_->scenario, elapsed, scenario_->start);
    state_.cpuLoad = v.cpu;
    state_.gpuLoad = v.gpu;
    state_.ambient = v.ambient;
    state_.battery.external = v.external;
}

void Simulation::step(std::span<const FanCommand> commands) {
    applyScenario();
    stepFans(commands);
    stepHeat();
    stepBattery();
    ++state_.steps;
}

void Simulation::stepFans(std::span<const FanCommand> commands) {
    const MachineParams &p = params_;
    double hottest = hottestCpu();
    double upAlpha = 1.0 - std::exp(-kStep / p.fanSpinUp);
    double downAlpha = 1.0 - std::exp(-kStep / p.fanSpinDown);
    for (std::size_t i = 0; i < state_.fans.size(); ++i) {
        FanState &fan = state_.fans[i];
        FanCommand command = i < commands.size() ? commands[i] : FanCommand{};
        // The firmware trusts its limit keys only while they make sense.
        double lo = command.min;
        double hi = command.max;
        if (!std::isfinite(lo) || !std::isfinite(hi) || lo < 0 || hi <= 0 || lo > hi) {
            lo = fan.hardwareMin;
            hi = fan.hardwareMax;
        }
        fan.manual = command.manual;
        if (fan.manual) {
            fan.spinning = true;
            double written = std::isfinite(command.written) ? command.written : lo;
            fan.target = std::clamp(written, lo, hi);
        } else {
            double span = std::max(p.fanCurveHigh - p.fanCurveLow, 1e-9);
            double fraction = std::clamp((hottest - p.fanCurveLow) / span, 0.0, 1.0);
            fan.target = lo + (hi - lo) * fraction;
            if (p.fanStop > 0) {
                if (fan.spinning && hottest < p.fanStop) {
                    fan.spinning = false;
                } else if (!fan.spinning && hottest > std::max(p.fanStart, p.fanStop)) {
                    fan.spinning = true;
                }
                if (!fan.spinning) {
                    fan.target = 0;
                }
            }
        }
        // However the keys read, a motor cannot turn faster than it can.
        fan.target = std::clamp(fan.target, 0.0, fan.hardwareMax);
        double goal = fan.stalled ? 0.0 : fan.target;
        fan.actual += (goal - fan.actual) * (goal > fan.actual ? upAlpha : downAlpha);
        if (goal == 0 && fan.actual < 1) {
            fan.actual = 0;
        }
    }
}

void Simulation::stepHeat() {
    const MachineParams &p = params_;
    auto &t = state_.temperature;
    double totalRpm = 0;
    for (const FanState &fan : state_.fans) {
        totalRpm += fan.actual;
    }
    double gAir = airflowConductance(p, totalRpm);
    state_.cpuPower =
        loadPower(p.cpuIdlePower, p.cpuMaxPower, state_.cpuLoad, t[at(Node::cpu)], p.cpuThrottle);
    state_.gpuPower =
        loadPower(p.gpuIdlePower, p.gpuMaxPower, state_.gpuLoad, t[at(Node::gpu)], p.cpuThrottle);
    const BatteryState &battery = state_.battery;
    double amps = battery.milliamps / 1000.0;
    double batteryHeat = battery.present ? amps * amps * kBatteryResistance : 0.0;
    double boardBattery = battery.present ? p.boardBattery : 0.0;
    double ambient = state_.ambient;

    double dt = kStep / substeps_;
    // Each node moves toward the temperature its power and its neighbours hold it at, by
    // the exact solution over dt with the neighbours held still. That never overshoots, so
    // no choice of capacities and conductances can make the network oscillate.
    auto relax = [dt](double temperature, double capacity, double power,
                      std::initializer_list<std::pair<double, double>> links) {
        double conductance = 0;
        double pull = power;
        for (auto [g, other] : links) {
            conductance += g;
            pull += g * other;
        }
        if (conductance <= 0) {
            return temperature + dt * power / capacity;
        }
        double equilibrium = pull / conductance;
        return equilibrium + (temperature - equilibrium) * std::exp(-dt * conductance / capacity);
    };
    for (int s = 0; s < substeps_; ++s) {
        double cpu = t[at(Node::cpu)], gpu = t[at(Node::gpu)], prox = t[at(Node::proximity)];
        double sink = t[at(Node::heatsink)], board = t[at(Node::board)];
        double bat = t[at(Node::battery)];
        t[at(Node::cpu)] = relax(cpu, p.cpuCapacity, state_.cpuPower,
                                 {{p.cpuHeatsink, sink}, {p.cpuProximity, prox}});
        t[at(Node::gpu)] = relax(gpu, p.gpuCapacity, state_.gpuPower, {{p.gpuHeatsink, sink}});
        t[at(Node::proximity)] =
            relax(prox, p.proximityCapacity, 0, {{p.cpuProximity, cpu}, {p.proximityBoard, board}});
        t[at(Node::heatsink)] = relax(sink, p.heatsinkCapacity, 0,
                                      {{p.cpuHeatsink, cpu},
                                       {p.gpuHeatsink, gpu},
                                       {p.heatsinkBoard, board},
                                       {gAir, ambient}});
        t[at(Node::board)] = relax(board, p.boardCapacity, p.boardPower,
                                   {{p.proximityBoard, prox},
                                    {p.heatsinkBoard, sink},
                                    {p.boardAmbient, ambient},
                                    {boardBattery, bat}});
        t[at(Node::battery)] = relax(bat, p.batteryCapacity, batteryHeat,
                                     {{boardBattery, board}, {p.batteryAmbient, ambient}});
    }
}

void Simulation::stepBattery() {
    BatteryState &b = state_.battery;
    if (!b.present) {
        return;
    }
    double full = std::max(b.full, 1.0);
    double soc = std::clamp(b.remaining / full, 0.0, 1.0);
    double restVolts = b.cells * (kCellEmpty + kCellSpan * soc);
    if (b.external) {
        double taper = soc < 0.8 ? 1.0 : std::max(0.0, (1.0 - soc) / 0.2);
        b.milliamps = b.remaining < full ? b.chargeCurrent * taper : 0.0;
    } else {
        // The battery delivers the system's power at its terminal voltage, which sags
        // by I*R: P = I * (V - I*R), solved for I.
        double system = state_.cpuPower + state_.gpuPower + params_.boardPower;
        double disc = restVolts * restVolts - 4 * kBatteryResistance * system;
        double amps = disc > 0 ? (restVolts - std::sqrt(disc)) / (2 * kBatteryResistance)
                               : restVolts / (2 * kBatteryResistance);
        b.milliamps = -1000.0 * amps;
    }
    double delta = b.milliamps * kStep / 3600.0;
    b.remaining = std::clamp(b.remaining + delta, 0.0, full);
    if (delta < 0) {
        b.drained -= delta;
        if (b.drained >= full) {
            b.drained -= full;
            b.cycles += 1;
        }
    }
    b.volts = restVolts + b.milliamps / 1000.0 * kBatteryResistance;
}

double Simulation::value(Source source) const {
    const SimulationState &s = state_;
    const BatteryState &b = s.battery;
    const MachineParams &p = params_;
    double system = s.cpuPower + s.gpuPower + p.boardPower;
    bool onAdapter = !b.present || b.external;
    double charging = b.present && b.milliamps > 0 ? b.milliamps / 1000.0 * b.volts : 0.0;
    double fromBattery = b.present && b.milliamps < 0 ? -b.milliamps / 1000.0 * b.volts : 0.0;
    double cpuVolts =
        p.cpuVoltageIdle + (p.cpuVoltageMax - p.cpuVoltageIdle) * std::clamp(s.cpuLoad, 0.0, 1.0);
    double dcPower = onAdapter ? system + charging : 0.0;
    switch (source) {
        case Source::none:
            return 0;
        case Source::ambient:
            return s.ambient;
        case Source::cpu:
            return s.node(Node::cpu);
        case Source::gpu:
            return s.node(Node::gpu);
        case Source::proximity:
            return s.node(Node::proximity);
        case Source::heatsink:
            return s.node(Node::heatsink);
        case Source::board:
            return s.node(Node::board);
        case Source::battery:
            return s.node(Node::battery);
        case Source::cpuPower:
            return s.cpuPower;
        case Source::gpuPower:
            return s.gpuPower;
        case Source::systemPower:
            return system;
        case Source::dcPower:
            return dcPower;
        case Source::batteryPower:
            return fromBattery;
        case Source::dcVoltage:
            return onAdapter ? p.dcVoltage : 0.0;
        case Source::batteryVoltage:
            return b.present ? b.volts : 0.0;
        case Source::cpuVoltage:
            return cpuVolts;
        case Source::dcCurrent:
            return onAdapter ? dcPower / p.dcVoltage : 0.0;
        case Source::batteryCurrent:
            return b.present ? -b.milliamps / 1000.0 : 0.0;
        case Source::cpuCurrent:
            return s.cpuPower / cpuVolts;
        case Source::batteryMillivolts:
            return b.present ? std::round(b.volts * 1000) : 0.0;
        case Source::batteryCellMillivolts:
            return b.present ? std::round(b.volts * 1000 / b.cells) : 0.0;
        case Source::batteryMilliamps:
            return std::round(b.milliamps);
        case Source::batteryRemaining:
            return std::round(b.remaining);
        case Source::batteryFull:
            return std::round(b.full);
        case Source::batteryDesign:
            return std::round(b.design);
        case Source::batteryCycles:
            return b.cycles;
        case Source::batteryPercent:
            return b.full > 0 ? std::round(100.0 * b.remaining / b.full) : 0.0;
        case Source::batteryMinutesToFull:
            return b.milliamps > 0
                       ? std::min(65534.0, std::round((b.full - b.remaining) / b.milliamps * 60))
                       : 65535.0;
        case Source::externalPower:
            return onAdapter ? 1.0 : 0.0;
    }
    return 0;
}

}  // namespace ostrel::vsmc
