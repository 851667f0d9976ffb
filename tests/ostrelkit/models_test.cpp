// Readings and snapshots: derived temperatures and powers, and the timestamp text. (The JSON
// forms are checked where they are printed, in the CLI tests.)

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ostrel/models.h"

namespace {

using namespace ostrel;
using std::chrono::milliseconds;

constexpr double kInf = std::numeric_limits<double>::infinity();

using G = SensorGroup;

// A temperature reading; derived temperatures look at its group, value and `known` only.
Reading temp(SensorGroup group, double value, bool known = true) {
    return Reading{"T", "T", group, value, known};
}

Snapshot withTemperatures(std::vector<Reading> temperatures) {
    return Snapshot({}, std::move(temperatures), {}, {}, {}, {}, std::nullopt);
}

// A snapshot of power readings, given as key and value; the derived powers read keys only.
Snapshot withPower(std::vector<std::pair<const char *, double>> readings) {
    std::vector<Reading> power;
    for (auto [key, value] : readings) {
        power.push_back({key, key, SensorGroup::other, value, false});
    }
    return Snapshot({}, {}, {}, std::move(power), {}, {}, std::nullopt);
}

TEST(SnapshotTest, DerivedTemperaturesNeedAUsableOneAndCpuAndGpuOutrankOtherGroups) {
    const std::vector<Reading> unusable[] = {
        {},
        {temp(G::cpu, 60, false), temp(G::gpu, 50, false)},
        {temp(G::cpu, NAN), temp(G::gpu, kInf), temp(G::board, -kInf)},
    };
    for (const auto &readings : unusable) {
        Snapshot s = withTemperatures(readings);
        EXPECT_EQ(std::vector({s.cpu(), s.gpu(), s.hottest(), s.maximumKnownTemperature(),
                               s.averageTemperature(G::cpu), s.temperature(CurveSensor::cpu),
                               s.temperature(CurveSensor::gpu), s.temperature(CurveSensor::max)}),
                  std::vector<std::optional<double>>(8));
    }

    // CPU and GPU outrank the other groups for the curves' sensors.
    struct Case {
        std::vector<Reading> readings;
        double hottest, maximumKnown, cpu, gpu;  // the max sensor is the hottest
    } cases[] = {
        // A hot board is not consulted while a CPU value exists; gpu falls back to hottest.
        {{temp(G::cpu, 60), temp(G::board, 80)}, 60, 80, 60, 60},
        {{temp(G::board, 45)}, 45, 45, 45, 45},
        {{temp(G::gpu, 70), temp(G::cpu, 65), temp(G::cpu, 68)}, 70, 70, 68, 70},
        // An unknown CPU reading does not count, so the board decides.
        {{temp(G::cpu, 99, false), temp(G::board, 50)}, 50, 50, 50, 50},
        {{temp(G::gpu, 55), temp(G::gpu, NAN), temp(G::ambient, 30)}, 55, 55, 55, 55},
    };
    for (const Case &c : cases) {
        Snapshot snapshot = withTemperatures(c.readings);
        EXPECT_EQ(snapshot.hottest(), c.hottest);
        EXPECT_EQ(snapshot.maximumKnownTemperature(), c.maximumKnown);
        EXPECT_EQ(snapshot.temperature(CurveSensor::cpu), c.cpu);
        EXPECT_EQ(snapshot.temperature(CurveSensor::gpu), c.gpu);
        EXPECT_EQ(snapshot.temperature(CurveSensor::max), c.hottest);
    }
}

TEST(SnapshotTest, GroupMaximumAndAverageUseKnownFiniteReadingsOnly) {
    Snapshot snapshot = withTemperatures({temp(G::memory, 40), temp(G::memory, 50),
                                          temp(G::memory, 90, false), temp(G::memory, NAN)});
    EXPECT_EQ(snapshot.averageTemperature(SensorGroup::memory), 45);
    EXPECT_EQ(snapshot.maxTemperature(SensorGroup::memory), 50);
    EXPECT_FALSE(snapshot.maxTemperature(SensorGroup::storage));
}

// Whether a power reading is known does not matter.
TEST(SnapshotTest, PowerPrefersKeysInOrderWhereverTheyStand) {
    EXPECT_EQ(withPower({{"PDTR", 30}, {"PSTR", 20}}).systemPower(), 20);
    EXPECT_EQ(withPower({{"PDTR", 30}}).systemPower(), 30);
    EXPECT_FALSE(withPower({{"PCPC", 9}}).systemPower());
    EXPECT_EQ(withPower({{"PC0R", 3}, {"PCPT", 7}, {"PCPT", 8}}).cpuPower(), 7);
    EXPECT_FALSE(withPower({}).cpuPower());
}

TEST(FanReadingTest, LoadIsClampedAndZeroWithoutLimits) {
    struct Case {
        double rpm, min, max, load;
    } cases[] = {{1500, 1000, 2000, 0.5}, {500, 1000, 2000, 0},  {2500, 1000, 2000, 1},
                 {1500, 0, 0, 0},         {1500, 2000, 1000, 0}, {NAN, 1000, 2000, 0}};
    for (const Case &c : cases) {
        FanReading fan{0, "Left", c.rpm, c.min, c.max, std::nullopt, false};
        EXPECT_EQ(fan.load(), c.load) << c.rpm << " " << c.min << " " << c.max;
    }
}

TEST(TimestampTest, MillisecondsRoundTowardThePast) {
    using Time = Snapshot::Clock::time_point;
    EXPECT_EQ(timestampText(Time(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(timestampText(Time(std::chrono::nanoseconds(1'999'999))), "1970-01-01T00:00:00.001Z");
}

}  // namespace
