// Load scenarios: the text format, ramps and loops, and a machine playing one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/scenario.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel::vsmc;
using testing::HasSubstr;

std::string errorOf(const std::string &text) {
    try {
        parseScenario(text, "load.scenario");
    } catch (const ScenarioError &e) {
        return e.what();
    }
    return "(parsed)";
}

TEST(ScenarioText, RampsHoldAndSettingsNotNamedKeepTheirStartValue) {
    Scenario s = parseScenario(
        "# warm up\n"
        "at 0 cpu 0.2   # light\n"
        "\n"
        "at 10 cpu 1 gpu 0.5 over 10\n"
        "at 15 ambient 30 power battery\n",
        "x");
    ASSERT_EQ(s.points.size(), 3u);
    ScenarioValues start{0.5, 0.1, 20, true};
    EXPECT_EQ(scenarioAt(s, 5, start), (ScenarioValues{0.2, 0.1, 20, true}));
    ScenarioValues mid = scenarioAt(s, 15, start);
    EXPECT_DOUBLE_EQ(mid.cpu, 0.6);
    EXPECT_DOUBLE_EQ(mid.gpu, 0.3);
    EXPECT_EQ(mid.ambient, 30);
    EXPECT_FALSE(mid.external);
    EXPECT_EQ(scenarioAt(s, 1000, start), (ScenarioValues{1, 0.5, 30, false}));
    EXPECT_FALSE(scenarioFinished(s, 19));
    EXPECT_TRUE(scenarioFinished(s, 20));
}

TEST(ScenarioText, ARampRetargetedHalfwayStartsFromWhereItGot) {
    Scenario s = parseScenario("at 0 cpu 1 over 10\nat 5 cpu 0 over 5\n", "x");
    EXPECT_DOUBLE_EQ(scenarioAt(s, 5, {}).cpu, 0.5);
    EXPECT_DOUBLE_EQ(scenarioAt(s, 7.5, {}).cpu, 0.25);
}

TEST(ScenarioText, ALoopStartsAgainFromTheTop) {
    Scenario s = parseScenario("at 0 cpu 0.1\nat 10 cpu 0.9\nloop 20\n", "x");
    EXPECT_EQ(scenarioAt(s, 25, {}).cpu, 0.1);
    EXPECT_EQ(scenarioAt(s, 35, {}).cpu, 0.9);
    EXPECT_FALSE(scenarioFinished(s, 1e6));
}

TEST(ScenarioText, ErrorsNameTheFileAndLine) {
    EXPECT_EQ(errorOf("at 0 cpu 1.5\n"),
              "load.scenario:1: cpu load '1.5' must be a number from 0 to 1");
    EXPECT_THAT(errorOf("at 10 cpu 1\nat 5 cpu 0\n"), HasSubstr(":2: time 5 comes before"));
    EXPECT_THAT(errorOf("at 0 fan 1\n"), HasSubstr(":1: unknown setting 'fan'"));
    EXPECT_THAT(errorOf("at 0 cpu\n"), HasSubstr(":1: a point reads"));
    EXPECT_THAT(errorOf("at 0 power mains\n"), HasSubstr("must be ac or battery"));
    EXPECT_THAT(errorOf("at 0 cpu 1\nloop 300\nat 400 cpu 0\n"), HasSubstr(":3: nothing may"));
    EXPECT_THAT(errorOf("at 50 cpu 1\nloop 10\n"), HasSubstr("after the last point"));
    EXPECT_THAT(errorOf("run 0\n"), HasSubstr("unknown directive 'run'"));
    EXPECT_THAT(errorOf("at nan cpu 1\n"), HasSubstr("time 'nan'"));
    EXPECT_EQ(errorOf("# nothing\n"), "load.scenario: no 'at' line");
}

TEST(ScenarioPlay, DrivesTheLoadsUntilTheLoadIsSetByHand) {
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    machine.play(parseScenario("at 0 cpu 0.5\nat 10 cpu 1 gpu 1\n", "two-step"));
    machine.advance(5);
    EXPECT_EQ(machine.simulation().state().cpuLoad, 0.5);
    machine.advance(10);
    EXPECT_EQ(machine.simulation().state().gpuLoad, 1);
    EXPECT_EQ(statusJson(machine)["scenario"]["source"], "two-step");
    machine.setLoad(0.1, 0);
    EXPECT_FALSE(machine.simulation().scenario().has_value());
    machine.advance(5);
    EXPECT_EQ(machine.simulation().state().cpuLoad, 0.1);
}

}  // namespace
