// The control loop's cost on each built-in machine: SMC exchanges and CPU time per active
// tick, held against the least a tick can read, and the exchanges of an idle minute (which
// must be none). Ticks run on a manual queue, so the fake clock moves 2 s a tick and the
// fan limits are re-read every fifth tick, as in the daemon.

#include <benchmark/benchmark.h>

#include "controller.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/memory_transport.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;

const char *const kProfiles[] = {"macbookpro10-1", "macbookpro16-1", "macbookpro18-2", "macpro7-1"};

struct Setup {
    explicit Setup(const char *profile) : machine(vsmc::builtinProfile(profile)) {
        machine.setUnlockRefusals(0);
        controller.start();
        // A machine at work but not hot, so that the policies apply rather than the
        // failsafe.
        for (const SensorDescriptor &sensor : controller.discovery().sensors) {
            if (sensor.quantity == Quantity::temperature) {
                vsmc::KeyEntry *entry = machine.keys().find(sensor.info.key.rawValue);
                smc_encode_double(entry->type, entry->size, entry->bytes.data(), 60);
            }
        }
    }

    vsmc::Machine machine;
    platform::FakeEnvironment env;
    platform::FakeClock clock;
    platform::FakeFiles files;
    platform::ManualQueue queue{clock};
    helper::Controller controller{helper::ControllerServices{
        queue, SystemAccess{&env, &files, &clock}, files, "/policies.json", [](std::string_view) {},
        [this] {
            return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
        }}};

    // The reads a tick cannot do without: each essential temperature, and per fan its speed,
    // its mode where it has a mode key, its target while manual, the force mask once; and
    // the two limits of every fan once they are more than 10 s old (every sixth tick).
    double minimumPerTick() const {
        const Discovery &d = controller.discovery();
        double reads = d.fanForceKey && !d.fans.empty() ? 1 : 0;
        for (const SensorDescriptor &s : d.sensors) {
            reads += s.essential && s.quantity == Quantity::temperature;
        }
        for (const FanDescriptor &fan : d.fans) {
            reads += 2 + fan.hasModeKey + 2.0 / 6;
        }
        return reads;
    }
};

void BM_ActiveTick(benchmark::State &state) {
    const char *profile = kProfiles[state.range(0)];
    Setup s(profile);
    s.queue.sync([&] { s.controller.setPolicy(FanPolicy::fixed(2500), -1); });
    s.queue.advance(20s);  // the first writes, and the key information cached
    s.machine.clearJournal();
    std::uint64_t exchanges = 0, writes = 0, ticks = 0;
    for (auto _ : state) {
        s.queue.advance(2s);
        ++ticks;
        if (ticks % 1000 == 0) {
            state.PauseTiming();
            exchanges += s.machine.totalExchanges();
            writes += s.machine.count(SMC_CMD_WRITE);
            s.machine.clearJournal();
            state.ResumeTiming();
        }
    }
    exchanges += s.machine.totalExchanges();
    writes += s.machine.count(SMC_CMD_WRITE);
    state.counters["exchangesPerTick"] = static_cast<double>(exchanges) / ticks;
    state.counters["minimumPerTick"] = s.minimumPerTick();
    state.counters["writesPerTick"] = static_cast<double>(writes) / ticks;
    state.SetLabel(profile);
}
BENCHMARK(BM_ActiveTick)->DenseRange(0, 3)->Unit(benchmark::kMicrosecond);

// Exactly 1,000 active ticks, for bench/figures to count their instructions under
// valgrind --tool=callgrind (collecting inside Controller::tick only).
void BM_TickInstructions(benchmark::State &state) {
    Setup s(kProfiles[state.range(0)]);
    s.queue.sync([&] { s.controller.setPolicy(FanPolicy::fixed(2500), -1); });
    s.queue.advance(20s);
    for (auto _ : state) {
        s.queue.advance(2s);
    }
    state.SetLabel(kProfiles[state.range(0)]);
}
BENCHMARK(BM_TickInstructions)->DenseRange(0, 3)->Iterations(1000);

void BM_IdleMinute(benchmark::State &state) {
    const char *profile = kProfiles[state.range(0)];
    Setup s(profile);
    s.machine.clearJournal();
    std::uint64_t minutes = 0;
    for (auto _ : state) {
        s.queue.advance(60s);
        ++minutes;
    }
    state.counters["exchangesPerMinute"] =
        static_cast<double>(s.machine.totalExchanges()) / minutes;
    state.SetLabel(profile);
}
BENCHMARK(BM_IdleMinute)->DenseRange(0, 3);

}  // namespace
