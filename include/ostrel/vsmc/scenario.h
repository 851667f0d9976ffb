// Load scenarios: what the virtual Mac's user does over time (CPU and GPU load, room
// temperature, the power adapter). Text format in docs/vsmc-physics.md, for example:
//
//     # a build, then idle
//     at 0   cpu 0.05 gpu 0.02
//     at 10  cpu 1 over 5        # ramp to full CPU load in 5 s
//     at 200 cpu 0.1 over 20
//     loop 300                   # start again from the top at 300 s
//
// Parsing and evaluation are pure.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::vsmc {

// One line `at TIME SETTING...`: the settings it names change at TIME, ramping linearly
// over `over` seconds (load and ambient; the adapter switches at once).
struct ScenarioPoint {
    double time = 0;
    std::optional<double> cpu;
    std::optional<double> gpu;
    std::optional<double> ambient;
    std::optional<bool> external;
    double over = 0;

    bool operator==(const ScenarioPoint &) const = default;
};

struct Scenario {
    std::string source;                 // file name, for messages and status
    std::vector<ScenarioPoint> points;  // by time, never decreasing
    std::optional<double> loop;         // restart from the top at this time

    bool operator==(const Scenario &) const = default;
};

// What the scenario sets, at one moment.
struct ScenarioValues {
    double cpu = 0;
    double gpu = 0;
    double ambient = 0;
    bool external = true;

    bool operator==(const ScenarioValues &) const = default;
};

// A scenario that cannot be used; what() reads "SOURCE:LINE: message".
class ScenarioError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Parses scenario text; `source` names it in messages. Throws ScenarioError.
Scenario parseScenario(std::string_view text, const std::string &source);

// The values `elapsed` seconds after the scenario started, from `start` (what was in
// effect when it started; settings a scenario never names keep their start value).
ScenarioValues scenarioAt(const Scenario &scenario, double elapsed, const ScenarioValues &start);

// True once every point and ramp lies behind `elapsed` (never for a looping scenario).
bool scenarioFinished(const Scenario &scenario, double elapsed);

}  // namespace ostrel::vsmc
