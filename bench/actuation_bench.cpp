// Costs of fan actuation: one policy-engine tick by fan count, and the exchanges one
// setManual makes on each kind of machine.

#include <benchmark/benchmark.h>

#include "ostrel/fan_writer.h"
#include "ostrel/policy_engine.h"
#include "ostrel/sampler.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/memory_transport.h"

namespace {

using namespace ostrel;

Snapshot snapshotWithFans(int fans) {
    std::vector<Reading> temps;
    for (int i = 0; i < 12; ++i) {
        temps.push_back(
            {"TC" + std::to_string(i) + "C", "CPU Core", SensorGroup::cpu, 50.0 + i, true});
    }
    temps.push_back({"TG0P", "GPU Proximity", SensorGroup::gpu, 55, true});
    std::vector<FanReading> readings;
    for (int i = 0; i < fans; ++i) {
        readings.push_back({i, "Fan", 2000, 1200, 6000, std::nullopt, false});
    }
    return Snapshot({}, temps, readings, {}, {}, {}, std::nullopt);
}

void BM_EngineTick(benchmark::State &state) {
    int fans = static_cast<int>(state.range(0));
    FanPolicyEngine engine(SafetyLimits::intel());
    for (int i = 0; i < fans; ++i) {
        engine.set(i % 2 ? FanPolicy::fixed(2500) : FanPolicy::curve(FanCurve::balanced()), i);
    }
    Snapshot snapshot = snapshotWithFans(fans);
    for (auto _ : state) {
        benchmark::DoNotOptimize(engine.tick(snapshot));
    }
}
BENCHMARK(BM_EngineTick)->Arg(1)->Arg(4)->Arg(16);

void BM_SetManual(benchmark::State &state) {
    const char *profiles[] = {"macbookpro10-1", "macbookpro16-1", "macbookpro18-2"};
    vsmc::Machine machine(vsmc::builtinProfile(profiles[state.range(0)]));
    machine.setUnlockRefusals(0);
    auto smc = std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
    platform::FakeClock clock;
    SystemAccess system{&platform::processEnvironment(), &platform::realFiles(), &clock};
    FanWriter writer(smc, loadDiscovery(*smc, false, system), clock);
    writer.setManual(0, 2500);  // unlock and cache key information first
    machine.clearJournal();
    std::int64_t calls = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(writer.setManual(0, 2500 + static_cast<double>(calls % 100)));
        ++calls;
        if (machine.journal().size() > 100000) {
            state.PauseTiming();
            machine.clearJournal();
            calls = 0;
            state.ResumeTiming();
        }
    }
    state.counters["exchangesPerCall"] = static_cast<double>(machine.totalExchanges()) /
                                         static_cast<double>(std::max<std::int64_t>(calls, 1));
    state.SetLabel(profiles[state.range(0)]);
}
BENCHMARK(BM_SetManual)->DenseRange(0, 2);

}  // namespace
