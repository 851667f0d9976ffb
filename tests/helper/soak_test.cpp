// The controller for thousands of ticks under faults, random policy changes and load on
// every built-in machine, every invariant checked after every tick (tests/support/soak.h; the long
// run with its counts is bench/soak_bench.cpp).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/soak.h"

namespace {

TEST(SoakTest, EveryInvariantHoldsUnderFaultsOnEveryBuiltinMachine) {
    ostrel::soak::Counts total;
    for (const char *profile :
         {"macbookpro10-1", "macbookpro16-1", "macbookpro18-2", "macpro7-1"}) {
        ostrel::soak::Run run(profile, 16);
        run.run(5000);
        EXPECT_THAT(run.violations, testing::IsEmpty()) << profile;
        for (const auto &[name, count] : run.counts) {
            total[name] += count;
        }
    }
    // The runs went where it matters: every kind of fault met, the failsafe left again.
    for (const char *met : {"refused_writes", "firmware_errors", "kernel_errors", "vanished_keys",
                            "bogus_limits", "failed_saves", "resumes"}) {
        EXPECT_GT(total[met], 0u) << met;
    }
}

}  // namespace
