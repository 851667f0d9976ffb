// The long soak: 10,000 control ticks on each built-in machine under faults (tests/support/soak.h),
// reported as counters: what was injected, what the controller went through, how many
// invariant checks ran and how many failed (which must be none).

#include <benchmark/benchmark.h>

#include "support/soak.h"

namespace {

void BM_Soak(benchmark::State &state, const char *profile) {
    ostrel::soak::Counts total;
    std::size_t violations = 0;
    for (auto _ : state) {
        ostrel::soak::Run run(profile, 20261123);
        run.run(10000);
        for (const auto &[name, count] : run.counts) {
            total[name] += count;
        }
        violations += run.violations.size();
        for (const std::string &v : run.violations) {
            state.SkipWithError(v.c_str());
        }
    }
    for (const auto &[name, count] : total) {
        state.counters[name] = static_cast<double>(count);
    }
    state.counters["violations"] = static_cast<double>(violations);
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
