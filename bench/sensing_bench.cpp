// Costs of sensing, in exchanges with the SMC and in time: a full discovery scan, a load
// from the cache file, and one sample per scope.

#include <benchmark/benchmark.h>

#include <filesystem>

#include "ostrel/sampler.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/memory_transport.h"

namespace {

using namespace ostrel;

// The largest built-in machine (the Apple-silicon profile, with its sensor services).
constexpr const char *kProfile = "macbookpro18-2";

struct Setup {
    vsmc::Machine machine{vsmc::builtinProfile(kProfile)};
    std::string dir = std::filesystem::temp_directory_path() / "ostrel-bench-cache";
    platform::FakeEnvironment env{{{"XDG_CACHE_HOME", dir}, {"OSTREL_ROOT", dir + "/root"}}};
    platform::FakeClock clock;
    SystemAccess system{&env, &platform::realFiles(), &clock};

    std::shared_ptr<SMC> connect() {
        return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
    }
};

void BM_DiscoveryScan(benchmark::State &state) {
    Setup s;
    for (auto _ : state) {
        auto smc = s.connect();  // a fresh connection: nothing cached
        s.machine.clearJournal();
        benchmark::DoNotOptimize(loadDiscovery(*smc, false, s.system));
    }
    state.counters["exchanges"] = static_cast<double>(s.machine.totalExchanges());
    state.counters["keyInfo"] = static_cast<double>(s.machine.count(SMC_CMD_KEY_INFO));
    state.counters["keys"] = static_cast<double>(s.machine.keys().size());
}
BENCHMARK(BM_DiscoveryScan)->Unit(benchmark::kMicrosecond);

void BM_DiscoveryFromCache(benchmark::State &state) {
    Setup s;
    loadDiscovery(*s.connect(), true, s.system);  // writes the cache file
    for (auto _ : state) {
        auto smc = s.connect();
        s.machine.clearJournal();
        benchmark::DoNotOptimize(loadDiscovery(*smc, true, s.system));
    }
    // The key count (one info, one read) is all a cached load asks of the SMC.
    state.counters["exchanges"] = static_cast<double>(s.machine.totalExchanges());
    state.counters["keyInfo"] = static_cast<double>(s.machine.count(SMC_CMD_KEY_INFO));
}
BENCHMARK(BM_DiscoveryFromCache)->Unit(benchmark::kMicrosecond);

void BM_Sample(benchmark::State &state) {
    Setup s;
    auto scope = static_cast<SamplerScope>(state.range(0));
    Sampler sampler(s.connect(), scope, false, s.system);
    sampler.parts = {SamplerParts::temperatures, SamplerParts::fans, SamplerParts::power,
                     SamplerParts::electrical};
    sampler.sample();  // warm: key information cached, fan limits read
    std::size_t values = 0;
    s.machine.clearJournal();
    std::int64_t samples = 0;
    for (auto _ : state) {
        Snapshot snapshot = sampler.sample();
        values = snapshot.temperatures().size() + snapshot.power().size() +
                 snapshot.voltages().size() + snapshot.currents().size();
        ++samples;
        benchmark::DoNotOptimize(snapshot);
    }
    state.counters["exchangesPerSample"] =
        static_cast<double>(s.machine.totalExchanges()) / static_cast<double>(samples);
    state.counters["infoPerSample"] =
        static_cast<double>(s.machine.count(SMC_CMD_KEY_INFO)) / static_cast<double>(samples);
    state.counters["valuesRead"] = static_cast<double>(values);
    state.SetLabel(scope == SamplerScope::essential ? "essential"
                   : scope == SamplerScope::known   ? "known"
                                                    : "all");
}
BENCHMARK(BM_Sample)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

// What the daemon's control tick reads (essential temperatures and the fans) on an Intel
// desktop whose power-supply and PCIe sensors look like Apple-silicon cores, and on an
// Apple-silicon machine: only the real CPU and GPU sensors should be read on the first.
void BM_ControlTickSample(benchmark::State &state) {
    const char *profile = state.range(0) == 0 ? "macpro7-1" : "macbookpro18-2";
    vsmc::Machine machine{vsmc::builtinProfile(profile)};
    platform::FakeEnvironment env{{{"OSTREL_ROOT", "/nonexistent"}}};
    platform::FakeClock clock;
    SystemAccess system{&env, &platform::realFiles(), &clock};
    Sampler sampler(std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine)),
                    SamplerScope::essential, false, system);
    sampler.parts = {SamplerParts::temperatures, SamplerParts::fans};
    Snapshot snapshot = sampler.sample();  // warm
    machine.clearJournal();
    std::int64_t samples = 0;
    for (auto _ : state) {
        snapshot = sampler.sample();
        ++samples;
        benchmark::DoNotOptimize(snapshot);
    }
    state.counters["exchangesPerSample"] =
        static_cast<double>(machine.totalExchanges()) / static_cast<double>(samples);
    state.counters["temperatures"] = static_cast<double>(snapshot.temperatures().size());
    state.SetLabel(profile);
}
BENCHMARK(BM_ControlTickSample)->DenseRange(0, 1)->Unit(benchmark::kMicrosecond);

}  // namespace
