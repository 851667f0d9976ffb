// Any bytes as a load scenario (a file a user hands to `ostrel-vsmc --scenario` or `ctl
// scenario`): parsing either fails with ScenarioError or gives points in time order whose
// values, at any moment, stay within the ranges the format allows (ramps included), that
// stop changing once the scenario is finished, and that a machine playing them survives
// with finite temperatures.

#include <cmath>
#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/scenario.h"

using ostrel::fuzz::check;

namespace {

bool within(double value, double min, double max) {
    return std::isfinite(value) && value >= min - 1e-9 && value <= max + 1e-9;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel::vsmc;
    Scenario scenario;
    try {
        scenario =
            parseScenario(std::string_view(reinterpret_cast<const char *>(data), size), "fuzz");
    } catch (const ScenarioError &) {
        return 0;
    }
    check(!scenario.points.empty());
    std::vector<double> moments = {0, 1e9, 1e12};
    double previous = 0;
    for (const ScenarioPoint &p : scenario.points) {
        check(p.time >= previous && p.over >= 0);
        previous = p.time;
        moments.insert(moments.end(), {p.time, p.time + p.over / 2, p.time + p.over});
    }
    if (scenario.loop) {
        check(*scenario.loop > 0 && *scenario.loop >= previous);
        moments.push_back(*scenario.loop * 1.5);
    }
    const ScenarioValues start{0.5, 0.5, 20, true};
    for (double t : moments) {
        ScenarioValues v = scenarioAt(scenario, t, start);
        check(within(v.cpu, 0, 1) && within(v.gpu, 0, 1) && within(v.ambient, -30, 60));
        if (scenarioFinished(scenario, t)) {
            check(scenarioAt(scenario, t + 1000, start) == v);
        }
    }

    static const Profile profile = builtinProfile("macbookpro10-1");
    Machine machine(profile);
    machine.play(scenario);
    for (int step = 0; step < 10; ++step) {
        machine.advance(60.0);
    }
    for (double celsius : machine.simulation().state().temperature) {
        check(std::isfinite(celsius));
    }
    return 0;
}
