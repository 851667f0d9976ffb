// The policy engine driven by snapshots: actions, the failsafe and its resume.

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "ostrel/policy_engine.h"

namespace {

using namespace ostrel;
using Engine = FanPolicyEngine;
using Actions = std::vector<Engine::Action>;
using M = Engine::Manual;
using F = Engine::Failsafe;
using R = Engine::Resume;

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

// Ticks of one CPU temperature (none: no usable one): how many, the actions the last of
// them returns, and whether the failsafe holds after it.
struct Ticks {
    std::optional<double> cpu;
    int times;
    Actions last;
    bool suspended = false;
};

class EngineTest : public testing::Test {
  protected:
    Engine engine{SafetyLimits::intel()};

    void play(const std::vector<Ticks> &script) {
        for (std::size_t step = 0; step < script.size(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            Actions last;
            for (int i = 0; i < script[step].times; ++i) {
                last = engine.tick(snapshot(script[step].cpu));
            }
            EXPECT_EQ(last, script[step].last);
            EXPECT_EQ(engine.suspended(), script[step].suspended);
        }
    }
};

// Two hot ticks in a row (at the ceiling counts as hot) hand the fans to the firmware
// until thirty cool ticks in a row (85 is not cool); a tick between restarts either count.
TEST_F(EngineTest, FailsafeOnTheSecondHotTickResumesOnTheThirtiethCoolTick) {
    engine.set(FanPolicy::fixed(2000), 0);
    play({{95, 1, {M{0, 2000}}},
          {94.9, 1, {M{0, 2000}}},
          {97, 1, {M{0, 2000}}},
          {97, 1, {F{97}}, true},
          {96, 1, {}, true},
          {80, 29, {}, true},
          {85, 1, {}, true},
          {80, 29, {}, true},
          {80, 1, {R{80}, M{0, 2000}}},
          // No usable temperature counts as 0.
          {std::nullopt, 5, {M{0, 2000}}},
          {99, 2, {F{99}}, true},
          {std::nullopt, 29, {}, true},
          {std::nullopt, 1, {R{0}, M{0, 2000}}}});
}

TEST_F(EngineTest, FullCoolingFansStayAtMaximumThroughTheFailsafe) {
    engine.set(FanPolicy::fixed(5800), 0);  // 5800 >= 0.95 * 6000
    engine.set(FanPolicy::fixed(2000), 1);
    play({{99, 1, {M{0, 5800}, M{1, 2000}}},
          {99, 1, {F{99}, M{0, 6000}}, true},
          {99, 1, {M{0, 6000}}, true}});
}

TEST_F(EngineTest, AllFullSpeedPoliciesAreNeverSuspended) {
    engine.set(FanPolicy::fixed(kInf), 0);
    engine.set(FanPolicy::fixed(-kInf), 1);
    play({{120, 5, {M{0, 6000}, M{1, 6000}}}});
    // A policy for a fan the snapshot lacks breaks the equality: the failsafe applies.
    engine.set(FanPolicy::fixed(kInf), 7);
    play({{120, 2, {F{120}, M{0, 6000}, M{1, 6000}}, true}});
}

TEST_F(EngineTest, CurvesFollowTheirSensorOrHandTheFanBackAndActionsFollowTheFanOrder) {
    engine.set(FanPolicy::curve(FanCurve("50:min,70:3000,85:max", CurveSensor::gpu)), 1);
    // No GPU reading: the hottest (CPU) temperature drives it.
    EXPECT_EQ(engine.tick(snapshot(60)), (Actions{M{1, 2100}}));
    // The board is consulted only when there is neither CPU nor GPU.
    EXPECT_EQ(engine.tick(snapshot(std::nullopt, 2, 90)), (Actions{M{1, 6000}}));
    EXPECT_EQ(engine.tick(snapshot(std::nullopt)), Actions{Engine::Auto{1}});

    // Actions follow the snapshot's fan order, whatever order the policies were set in.
    engine.set(FanPolicy::fixed(kInf), 2);
    engine.set(FanPolicy::fixed(0), 0);
    engine.set(FanPolicy::fixed(9000), 5);  // not in the snapshot: nothing
    EXPECT_EQ(engine.tick(snapshot(40, 3)), (Actions{M{0, 1200}, M{1, 1200}, M{2, 6000}}));
}

TEST_F(EngineTest, SettingTheLastPolicyToAutoOrClearingResetsTheFailsafe) {
    for (const auto &reset : std::vector<std::function<void()>>{[&] { engine.set(FanPolicy(), 0); },
                                                                [&] { engine.clear(); }}) {
        engine.set(FanPolicy::fixed(2000), 0);
        play({{100, 2, {F{100}}, true}});
        reset();
        EXPECT_EQ(std::tuple(engine.suspended(), engine.isActive(), engine.policies().empty()),
                  std::tuple(false, false, true));
    }
}

}  // namespace
