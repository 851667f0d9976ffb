// The machine's true state for `ostrel-vsmc ctl status --json`. The member names and their
// order are part of the control protocol (docs/vsmc-protocol.md): end-to-end tests read
// them, so they change only together with that document.

#include <fmt/format.h>

#include <cmath>

#include "ostrel/vsmc/machine.h"

namespace ostrel::vsmc {

namespace {

// Rounded to `unit` (0.01, 0.1, 1) so that the report reads well and compares stably;
// dividing by the inverse gives the double nearest the decimal, which prints short.
double rounded(double value, double unit) {
    double perUnit = std::round(1 / unit);
    return std::round(value * perUnit) / perUnit;
}

std::string codeText(std::uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        auto c = static_cast<char>((code >> shift) & 0xFF);
        text.push_back(c >= 32 && c <= 126 ? c : '?');
    }
    return text;
}

std::string hexBytes(const std::vector<std::uint8_t> &bytes) {
    std::string out;
    for (std::uint8_t b : bytes) {
        out += fmt::format("{}{:02x}", out.empty() ? "" : " ", b);
    }
    return out;
}

const char *commandName(std::uint8_t command) {
    switch (command) {
        case SMC_CMD_READ:
            return "read";
        case SMC_CMD_WRITE:
            return "write";
        case SMC_CMD_KEY_AT_INDEX:
            return "key-at-index";
        case SMC_CMD_KEY_INFO:
            return "key-info";
        default:
            return "other";
    }
}

const char *controlName(FanControlKind kind) {
    switch (kind) {
        case FanControlKind::forceMask:
            return "force-mask";
        case FanControlKind::modeKeys:
            return "mode-keys";
        case FanControlKind::testKey:
            return "test-key";
        case FanControlKind::none:
            break;
    }
    return "none";
}

Json keyNumber(const Machine &machine, std::uint32_t key, double unit) {
    auto value = machine.number(key);
    return value && std::isfinite(*value) ? Json(rounded(*value, unit)) : Json(nullptr);
}

}  // namespace

Json statusJson(const Machine &machine) {
    const Simulation &sim = machine.simulation();
    const SimulationState &state = sim.state();
    constexpr double kCelsius = 0.01, kRpm = 0.1, kWatts = 0.01;

    Json scenario = nullptr;
    if (const auto &playing = sim.scenario()) {
        double elapsed = static_cast<double>(state.steps - playing->startStep) * Simulation::kStep;
        scenario = {{"source", playing->scenario.source},
                    {"elapsed", rounded(elapsed, 0.1)},
                    {"finished", scenarioFinished(playing->scenario, elapsed)}};
    }
    Json temperatures = Json::object();
    for (Source source : {Source::cpu, Source::gpu, Source::proximity, Source::heatsink,
                          Source::board, Source::battery}) {
        temperatures[std::string(sourceName(source))] =
            source == Source::battery && !state.battery.present
                ? Json(nullptr)
                : Json(rounded(sim.value(source), kCelsius));
    }
    Json fans = Json::array();
    for (std::size_t i = 0; i < machine.fanCount(); ++i) {
        const FanState &fan = state.fans[i];
        fans.push_back({{"index", i},
                        {"mode", machine.fanManual(i) ? "manual" : "auto"},
                        {"target", rounded(fan.target, kRpm)},
                        {"written", keyNumber(machine, fanKey(i, "Tg"), kRpm)},
                        {"actual", rounded(fan.actual, kRpm)},
                        {"min", keyNumber(machine, fanKey(i, "Mn"), kRpm)},
                        {"max", keyNumber(machine, fanKey(i, "Mx"), kRpm)},
                        {"hardwareMin", fan.hardwareMin},
                        {"hardwareMax", fan.hardwareMax},
                        {"stalled", fan.stalled},
                        {"spinning", fan.spinning}});
    }
    Json recent = Json::array();
    for (const WriteRecord &w : machine.writes()) {
        recent.push_back({{"time", rounded(w.time, 0.1)},
                          {"key", codeText(w.key)},
                          {"bytes", hexBytes(w.bytes)},
                          {"privileged", w.privileged},
                          {"result", w.result},
                          {"kern", w.kern}});
    }
    Json faults = Json::array();
    for (const Fault &f : machine.faults()) {
        faults.push_back({{"key", f.key ? Json(codeText(*f.key)) : Json(nullptr)},
                          {"command", f.command ? Json(commandName(*f.command)) : Json(nullptr)},
                          {"times", f.times},
                          {"kern", f.kern},
                          {"result", f.result}});
    }
    Json vanished = Json::array();
    for (std::uint32_t key : machine.vanishedKeys()) {
        vanished.push_back(codeText(key));
    }

    return {
        {"model", machine.model()},
        {"time", rounded(sim.time(), 0.1)},
        {"seed", machine.seed()},
        {"load", {{"cpu", rounded(state.cpuLoad, 0.001)}, {"gpu", rounded(state.gpuLoad, 0.001)}}},
        {"ambient", rounded(state.ambient, kCelsius)},
        {"externalPower", sim.value(Source::externalPower) != 0},
        {"scenario", scenario},
        {"temperatures", temperatures},
        {"hottestCpu", rounded(sim.hottestCpu(), kCelsius)},
        {"power",
         {{"cpu", rounded(state.cpuPower, kWatts)},
          {"gpu", rounded(state.gpuPower, kWatts)},
          {"system", rounded(sim.value(Source::systemPower), kWatts)},
          {"dc", rounded(sim.value(Source::dcPower), kWatts)},
          {"battery", rounded(sim.value(Source::batteryPower), kWatts)}}},
        {"fanControl", controlName(machine.fanControl())},
        {"testKey", keyNumber(machine, csmc::kTestKey, 1)},
        {"unlockRefusalsLeft", machine.unlockRefusalsLeft()},
        {"fans", fans},
        {"battery", Json(machine.batteryProperties())},
        {"writes", {{"count", machine.writeCount()}, {"recent", recent}}},
        {"exchanges",
         {{"read", machine.count(SMC_CMD_READ)},
          {"write", machine.count(SMC_CMD_WRITE)},
          {"keyInfo", machine.count(SMC_CMD_KEY_INFO)},
          {"keyAtIndex", machine.count(SMC_CMD_KEY_AT_INDEX)},
          {"total", machine.totalExchanges()}}},
        {"faults", faults},
        {"vanished", vanished},
    };
}

}  // namespace ostrel::vsmc
