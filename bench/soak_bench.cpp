// The long soak: 10,000 control ticks on each built-in machine under faults (bench/soak.h),
// reported as counters: what was injected, what the controller went through, how many
// invariant checks ran and how many failed (which must be none).

#include <benchmark/benchmark.h>

#include "soak.h"

namespace {

void BM_Soak(benchmark::State &state, const char *profile) {
    ostrel::soak::Counts total;
    std::size_t violations = 0;
    for (auto _ : state) {
        ostrel::soak::Run run(profile, 20261123);
        run.run(10000);
        total += run.counts;
        violations += run.violations.size();
        for (const std::string &v : run.violations) {
            state.SkipWithError(v.c_str());
        }
    }
    auto report = [&](const char *name, std::uint64_t value) {
        state.counters[name] = static_cast<double>(value) / static_cast<double>(state.iterations());
    };
    report("ticks", total.ticks);
    report("exchanges", total.exchanges);
    report("refused_writes", total.refusedWrites);
    report("firmware_errors", total.firmwareErrors);
    report("kernel_errors", total.kernelErrors);
    report("vanished_keys", total.vanishedKeys);
    report("bogus_limits", total.bogusLimits);
    report("failed_saves", total.failedSaves);
    report("policy_changes", total.policyChanges);
    report("refused_changes", total.refusedChanges);
    report("failsafe_entries", total.failsafeEntries);
    report("resumes", total.resumes);
    report("checks", total.checks);
    report("violations", violations);
}

BENCHMARK_CAPTURE(BM_Soak, macbookpro10_1, "macbookpro10-1")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Soak, macbookpro16_1, "macbookpro16-1")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Soak, macbookpro18_2, "macbookpro18-2")
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Soak, macpro7_1, "macpro7-1")->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
