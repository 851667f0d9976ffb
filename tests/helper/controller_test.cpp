// The fan controller on each built-in virtual Mac, with a fake clock and a manual queue:
// start-up and restore, the 2 s loop, write smoothing, the failsafe, policy changes and
// their storage, shutdown. What reaches the fans is read back from the machine's journal.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "controller.h"
#include "ostrel/policy_store.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using test::Write;
using testing::ElementsAre;
using testing::IsEmpty;

struct Profile {
    const char *name;
    double hot, cool;  // just above the failsafe's ceiling, and below its resume temperature
    const char *failsafeLine, *resumeLine;
};

void PrintTo(const Profile &profile, std::ostream *out) {
    *out << profile.name;
}

constexpr const char *kIntelFailsafe =
    "FAILSAFE: 95.3 °C ≥ 95 °C; fans on auto, policies suspended until below 85 °C for 60 s";
constexpr const char *kIntelResume = "cooled to 80.0 °C; resuming fan policies";

const Profile kProfiles[] = {
    {"macbookpro10-1", 95.3, 80, kIntelFailsafe, kIntelResume},
    {"macbookpro16-1", 95.3, 80, kIntelFailsafe, kIntelResume},
    {"macbookpro18-2", 110.3, 99.5,
     "FAILSAFE: 110.3 °C ≥ 110 °C; fans on auto, policies suspended until below 100 °C for 60 s",
     "cooled to 99.5 °C; resuming fan policies"},
    {"macpro7-1", 95.3, 80, kIntelFailsafe, kIntelResume},
};

class ControllerTest : public testing::TestWithParam<Profile>, protected test::Sandbox {
  protected:
    const std::string path = "/var/lib/dev.ostrel/fan-policies.json";
    vsmc::Machine machine = test::builtinMachine(GetParam().name);
    platform::FakeFiles files;
    platform::ManualQueue queue{clock};
    std::vector<std::string> lines;
    std::unique_ptr<helper::Controller> controller;

    void SetUp() override {
        machine.setUnlockRefusals(0);
        ASSERT_TRUE(machine.setFanLimits(0, 1000, 6000));
    }

    // Creates and starts the controller; the start's writes and lines are kept.
    helper::Controller &create() {
        controller = std::make_unique<helper::Controller>(helper::ControllerServices{
            queue, system, files, path, [this](std::string_view line) { lines.emplace_back(line); },
            [this] {
                return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
            }});
        controller->start();
        return *controller;
    }
    // Creates and starts it and forgets what the start did.
    void start() {
        create();
        machine.clearJournal();
        lines.clear();
    }
    void setPolicy(const FanPolicy &policy, std::int64_t fan) {
        queue.sync([&] { controller->setPolicy(policy, fan); });
    }
    // Every temperature sensor of the machine at `celsius`.
    void heat(double celsius) {
        for (const SensorDescriptor &s : controller->discovery().sensors) {
            if (s.quantity == Quantity::temperature) {
                test::setNumber(machine, s.info.key.description().c_str(), celsius);
            }
        }
    }
    // The target written to fan 0 in each of `ticks` ticks (0: none).
    std::vector<double> targetsOverTicks(int ticks) {
        std::vector<double> out;
        for (int i = 0; i < ticks; ++i) {
            queue.advance(2s);
            out.push_back(0);
            for (const Write &w : test::takeWrites(machine)) {
                out.back() = w.first == "F0Tg" ? w.second : out.back();
            }
        }
        return out;
    }
    bool anyFanManual() const {
        for (std::size_t i = 0; i < machine.fanCount(); ++i) {
            if (machine.fanManual(i)) {
                return true;
            }
        }
        return false;
    }
};

TEST_P(ControllerTest, StartsWithEveryFanOnAutoAndLeavesTheSMCAloneWithoutPolicies) {
    machine.keys().find(smc_fourcc("F1Md")) ? test::setNumber(machine, "F1Md", 1)
                                            : test::setNumber(machine, "FS! ", 2);
    helper::Controller &c = create();
    std::size_t essential = 0;
    for (const SensorDescriptor &s : c.discovery().sensors) {
        essential += s.essential;
    }
    EXPECT_THAT(lines,
                ElementsAre(fmt::format("started; {} fan(s), {} control sensors; fans set to auto",
                                        machine.fanCount(), essential)));
    EXPECT_FALSE(anyFanManual());
    machine.clearJournal();
    queue.advance(60s);
    EXPECT_EQ(machine.totalExchanges(), 0u);
}

TEST_P(ControllerTest, RestoresStoredPoliciesOfFansThatExist) {
    files.put(path, R"({"7":{"fixed":{"rpm":3000}},"1":{"auto":{}},"0":{"fixed":{"rpm":"inf"}}})");
    create();
    EXPECT_EQ(lines.at(1), "fan 0: restored fixed max");
    EXPECT_EQ(lines.size(), 2u) << "fan 7 does not exist, auto is no policy";
    EXPECT_EQ(controller->policies(), (PolicyMap{{0, FanPolicy::fixed(INFINITY)}}));
    machine.clearJournal();
    queue.advance(1900ms);
    EXPECT_EQ(machine.totalExchanges(), 0u) << "the first tick comes after 2 s";
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(6000));
}

TEST_P(ControllerTest, RaisesAtOnceLowersBy400PerTickAndSkipsChangesUnder50) {
    start();
    setPolicy(FanPolicy::curve(FanCurve("50:1000,90:5000", CurveSensor::max)), 0);
    heat(80);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(4000));
    heat(52);  // 1200 rpm
    EXPECT_THAT(targetsOverTicks(9), ElementsAre(3600, 3200, 2800, 2400, 2000, 1600, 1200, 0, 0));
    heat(70);  // 3000 rpm, then 3040 (no write) and 3060
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(3000));
    heat(70.4);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(0));
    heat(70.6);
    EXPECT_NEAR(targetsOverTicks(1).at(0), 3060, 1);
    setPolicy(FanPolicy::fixed(1200), 0);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(1200)) << "a new policy is not ramped";
}

TEST_P(ControllerTest, AFailedWriteIsLoggedAndTheRampContinuesFromTheLastWrittenSpeed) {
    start();
    setPolicy(FanPolicy::curve(FanCurve("50:1000,90:5000", CurveSensor::max)), 0);
    heat(80);
    targetsOverTicks(1);
    heat(52);
    machine.injectFault({smc_fourcc("F0Tg"), SMC_CMD_WRITE, 1, 0, 0x86});
    lines.clear();
    EXPECT_THAT(targetsOverTicks(2), ElementsAre(0, 3600));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("fan 0: write failed: ", 0), 0u) << lines[0];
    EXPECT_EQ(controller->written().at(0), 3600);
}

TEST_P(ControllerTest, FailsafeHandsEveryFanBackAndResumesAfterThirtyCoolTicks) {
    start();
    setPolicy(FanPolicy::fixed(2000), 0);
    heat(GetParam().hot);
    EXPECT_THAT(targetsOverTicks(2), ElementsAre(2000, 0));
    EXPECT_EQ(lines.back(), GetParam().failsafeLine);
    EXPECT_FALSE(anyFanManual());
    EXPECT_THAT(controller->written(), IsEmpty());
    heat(GetParam().cool);
    lines.clear();
    std::vector<double> resumed(29, 0.0);
    resumed.push_back(2000);
    EXPECT_EQ(targetsOverTicks(30), resumed);
    EXPECT_THAT(lines, ElementsAre(GetParam().resumeLine));
}

TEST_P(ControllerTest, PolicyChangesAreValidatedLoggedAndSaved) {
    start();
    EXPECT_THROW(setPolicy(FanPolicy::fixed(-1), 0), FanControlError);
    try {
        setPolicy(FanPolicy::fixed(2500), 7);
        FAIL();
    } catch (const FanControlError &e) {
        EXPECT_STREQ(e.what(), "no fan with id 7");
    }
    EXPECT_FALSE(files.read(path)) << "nothing saved for refused changes";
    setPolicy(FanPolicy::fixed(INFINITY), 0);
    setPolicy(FanPolicy::fixed(2500), -1);
    queue.advance(2s);  // fans manual (and test keys set) before one goes back
    setPolicy(FanPolicy(), 1);
    std::vector<std::string> expected = {"fan 0: fixed max"};
    for (std::size_t i = 0; i < machine.fanCount(); ++i) {
        expected.push_back(fmt::format("fan {}: fixed 2500 rpm", i));
    }
    expected.push_back("fan 1: auto");
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(PolicyStore::load(path, files), controller->policies());
    EXPECT_FALSE(controller->policies().contains(1));
    EXPECT_FALSE(machine.fanManual(1));
}

TEST_P(ControllerTest, AutoThatFailsResetsEveryFan) {
    start();
    setPolicy(FanPolicy::fixed(2500), -1);
    queue.advance(2s);
    ASSERT_TRUE(anyFanManual());
    machine.injectFault({std::nullopt, SMC_CMD_WRITE, 1, 0, 0x86});
    lines.clear();
    setPolicy(FanPolicy(), 0);
    EXPECT_EQ(lines.at(0).rfind("fan 0: auto failed (", 0), 0u) << lines.at(0);
    EXPECT_TRUE(lines.at(0).ends_with("); resetting all fans")) << lines.at(0);
    EXPECT_FALSE(anyFanManual());
}

TEST_P(ControllerTest, AFailedSaveIsLoggedAndThePolicyStaysInForce) {
    start();
    files.setReadOnly(true);
    setPolicy(FanPolicy::fixed(2500), 0);
    EXPECT_EQ(lines.back(),
              "could not save policies: cannot create directory /var/lib/dev.ostrel: Read-only "
              "file system");
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(2500));
}

TEST_P(ControllerTest, AllFansOnAMachineWithoutFansIsASuccessfulSave) {
    ASSERT_TRUE(machine.vanishKey(smc_fourcc("FNum")));
    start();
    setPolicy(FanPolicy::fixed(2500), -1);
    EXPECT_EQ(files.read(path), "{}");
    EXPECT_THAT(lines, IsEmpty());
}

TEST_P(ControllerTest, AfterShutdownNoTickTouchesTheFans) {
    start();
    setPolicy(FanPolicy::fixed(2500), 0);
    queue.advance(2s);
    queue.sync([this] { controller->shutdown("signal 15"); });
    EXPECT_EQ(lines.back(), "signal 15; fans returned to auto");
    EXPECT_FALSE(anyFanManual());
    machine.clearJournal();
    queue.async([this] { controller->tick(); });  // a request's tick queued behind the stop
    queue.advance(10s);
    EXPECT_EQ(machine.totalExchanges(), 0u);
    EXPECT_EQ(queue.activeTimers(), 0u);
    EXPECT_THROW(controller->tick(), std::logic_error) << "off the queue";
}

INSTANTIATE_TEST_SUITE_P(BuiltinMachines, ControllerTest, testing::ValuesIn(kProfiles),
                         [](const auto &info) {
                             std::string name = info.param.name;
                             std::erase(name, '-');
                             return name;
                         });

}  // namespace
