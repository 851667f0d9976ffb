// The policy engine driven by snapshots: actions, the failsafe and its resume.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "ostrel/policy_engine.h"

namespace {

using namespace ostrel;
using testing::ElementsAre;
using Engine = FanPolicyEngine;

constexpr double kInf = std::numeric_limits<double>::infinity();

// A snapshot with a CPU temperature (when given) and fans 0..n-1 limited to 1200-6000 rpm.
Snapshot snapshot(std::optional<double> cpu, int fans = 2, std::optional<double> board = {}) {
    std::vector<Reading> temps;
    if (cpu) {
        temps.push_back({"TC0P", "CPU Proximity", SensorGroup::cpu, *cpu, true});
    }
    if (board) {
        temps.push_back({"Tm0P", "Mainboard Proximity", SensorGroup::board, *board, true});
    }
    std::vector<FanReading> fanReadings;
    for (int i = 0; i < fans; ++i) {
        fanReadings.push_back({i, "Fan", 2000, 1200, 6000, std::nullopt, false});
    }
    return Snapshot({}, temps, fanReadings, {}, {}, {}, std::nullopt);
}

class EngineTest : public testing::Test {
  protected:
    Engine engine{SafetyLimits::intel()};

    std::vector<Engine::Action> ticks(int n, double t) {
        std::vector<Engine::Action> last;
        for (int i = 0; i < n; ++i) {
            last = engine.tick(snapshot(t));
        }
        return last;
    }
};

TEST_F(EngineTest, WithoutPoliciesNothingHappensWhateverTheHeat) {
    EXPECT_TRUE(engine.tick(snapshot(120)).empty());
    EXPECT_TRUE(engine.tick(snapshot(120)).empty());
    EXPECT_FALSE(engine.suspended());
    engine.set(FanPolicy(), 0);  // auto is never stored
    EXPECT_TRUE(engine.policies().empty());
    EXPECT_FALSE(engine.isActive());
}

TEST_F(EngineTest, FailsafeOnTheSecondHotTickThenFullCoolingOnly) {
    engine.set(FanPolicy::fixed(2000), 0);
    EXPECT_THAT(engine.tick(snapshot(96)), ElementsAre(Engine::Action{Engine::Manual{0, 2000}}));
    EXPECT_EQ(engine.hotTicks(), 1);
    EXPECT_THAT(engine.tick(snapshot(96)), ElementsAre(Engine::Action{Engine::Failsafe{96}}));
    EXPECT_TRUE(engine.suspended());
    EXPECT_EQ(engine.hotTicks(), 0);
    EXPECT_TRUE(engine.tick(snapshot(96)).empty()) << "the fan stays with the firmware";
}

TEST_F(EngineTest, AWarmTickBetweenHotOnesRestartsTheCount) {
    engine.set(FanPolicy::fixed(2000), 0);
    engine.tick(snapshot(95));  // at the ceiling counts as hot
    engine.tick(snapshot(94.9));
    EXPECT_EQ(engine.hotTicks(), 0);
    engine.tick(snapshot(97));
    EXPECT_FALSE(engine.suspended());
    engine.tick(snapshot(97));
    EXPECT_TRUE(engine.suspended());
}

TEST_F(EngineTest, ResumesOnTheThirtiethCoolTickAndAWarmTickRestartsTheCount) {
    engine.set(FanPolicy::fixed(2000), 0);
    ticks(2, 100);
    ASSERT_TRUE(engine.suspended());
    EXPECT_TRUE(ticks(29, 80).empty());
    EXPECT_EQ(engine.coolTicks(), 29);
    engine.tick(snapshot(85));  // not below 85
    EXPECT_EQ(engine.coolTicks(), 0);
    EXPECT_TRUE(ticks(29, 80).empty());
    EXPECT_THAT(engine.tick(snapshot(80)), ElementsAre(Engine::Action{Engine::Resume{80}},
                                                       Engine::Action{Engine::Manual{0, 2000}}));
    EXPECT_FALSE(engine.suspended());
}

TEST_F(EngineTest, NoUsableTemperatureCountsAsZero) {
    engine.set(FanPolicy::fixed(2000), 0);
    for (int i = 0; i < 5; ++i) {
        EXPECT_THAT(engine.tick(snapshot(std::nullopt)),
                    ElementsAre(Engine::Action{Engine::Manual{0, 2000}}));
    }
    ticks(2, 99);
    for (int i = 0; i < 29; ++i) {
        engine.tick(snapshot(std::nullopt));
    }
    EXPECT_THAT(engine.tick(snapshot(std::nullopt))[0], Engine::Action{Engine::Resume{0}});
}

TEST_F(EngineTest, FullCoolingFansStayAtMaximumThroughTheFailsafe) {
    engine.set(FanPolicy::fixed(5800), 0);  // 5800 >= 0.95 * 6000
    engine.set(FanPolicy::fixed(2000), 1);
    ticks(1, 99);
    EXPECT_THAT(engine.tick(snapshot(99)), ElementsAre(Engine::Action{Engine::Failsafe{99}},
                                                       Engine::Action{Engine::Manual{0, 6000}}));
    EXPECT_THAT(engine.tick(snapshot(99)), ElementsAre(Engine::Action{Engine::Manual{0, 6000}}));
}

TEST_F(EngineTest, AllFullSpeedPoliciesAreNeverSuspended) {
    engine.set(FanPolicy::fixed(kInf), 0);
    engine.set(FanPolicy::fixed(-kInf), 1);
    for (int i = 0; i < 5; ++i) {
        EXPECT_THAT(engine.tick(snapshot(120)),
                    ElementsAre(Engine::Action{Engine::Manual{0, 6000}},
                                Engine::Action{Engine::Manual{1, 6000}}));
    }
    EXPECT_FALSE(engine.suspended());
    // A policy for a fan the snapshot lacks breaks the equality: the failsafe applies.
    engine.set(FanPolicy::fixed(kInf), 7);
    ticks(2, 120);
    EXPECT_TRUE(engine.suspended());
}

TEST_F(EngineTest, CurvesFollowTheirSensorOrHandTheFanBack) {
    engine.set(FanPolicy::curve(FanCurve("50:min,70:3000,85:max", CurveSensor::gpu)), 1);
    // No GPU reading: the hottest (CPU) temperature drives it.
    EXPECT_THAT(engine.tick(snapshot(60)), ElementsAre(Engine::Action{Engine::Manual{1, 2100}}));
    // The board is consulted only when there is neither CPU nor GPU.
    EXPECT_THAT(engine.tick(snapshot(std::nullopt, 2, 90)),
                ElementsAre(Engine::Action{Engine::Manual{1, 6000}}));
    EXPECT_THAT(engine.tick(snapshot(std::nullopt)), ElementsAre(Engine::Action{Engine::Auto{1}}));
}

TEST_F(EngineTest, ActionsFollowTheSnapshotsFanOrderAndSpeedsAreResolved) {
    engine.set(FanPolicy::fixed(kInf), 2);
    engine.set(FanPolicy::fixed(0), 0);
    engine.set(FanPolicy::fixed(9000), 5);  // not in the snapshot: nothing
    EXPECT_THAT(engine.tick(snapshot(40, 3)), ElementsAre(Engine::Action{Engine::Manual{0, 1200}},
                                                          Engine::Action{Engine::Manual{2, 6000}}));
}

TEST_F(EngineTest, SettingTheLastPolicyToAutoOrClearingResetsTheFailsafe) {
    engine.set(FanPolicy::fixed(2000), 0);
    ticks(2, 100);
    ASSERT_TRUE(engine.suspended());
    engine.set(FanPolicy(), 0);
    EXPECT_FALSE(engine.suspended());
    EXPECT_TRUE(engine.policies().empty());
    engine.set(FanPolicy::fixed(2000), 0);
    ticks(2, 100);
    engine.clear();
    EXPECT_FALSE(engine.suspended());
    EXPECT_FALSE(engine.isActive());
}
}  // namespace
