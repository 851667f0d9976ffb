// The fan controller on each built-in virtual Mac, with a fake clock and a manual queue:
// start-up and restore, the 2 s loop, write smoothing, the failsafe, policy changes and
// their storage, shutdown. What reaches the fans is read back from the machine's journal.
// The loop closed over a machine whose time passes (heat, load, the failsafe tripping for
// real) is the soak's (support/soak.h), at the end.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "controller.h"
#include "support/sandbox.h"
#include "support/soak.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;

struct Profile {
    const char *name;
    double hot = 95.3, cool = 80;  // above the failsafe's ceiling, below its resume point
    const char *failsafeLine =
        "FAILSAFE: 95.3 °C ≥ 95 °C; fans on auto, policies suspended until below 85 °C for 60 s";
    const char *resumeLine = "cooled to 80.0 °C; resuming fan policies";
};
void PrintTo(const Profile &profile, std::ostream *out) {  // also its tests' names
    std::string name = profile.name;
    std::erase(name, '-');
    *out << name;
}

const Profile kProfiles[] = {
    {"macbookpro10-1"},
    {"macbookpro16-1"},
    {"macbookpro18-2", 110.3, 99.5,
     "FAILSAFE: 110.3 °C ≥ 110 °C; fans on auto, policies suspended until below 100 °C for 60 s",
     "cooled to 99.5 °C; resuming fan policies"},
    {"macpro7-1"},
};

// A controller on each built-in machine, driven by a manual queue, logging into `lines`.
class ControllerTest : public testing::TestWithParam<Profile>, protected test::Sandbox {
  protected:
    ControllerTest() : machine(test::builtinMachine(GetParam().name)) {
        machine.setUnlockRefusals(0);
        EXPECT_TRUE(machine.setFanLimits(0, 1000, 6000));
    }

    const std::string path = "/var/lib/dev.ostrel/fan-policies.json";
    vsmc::Machine machine;
    platform::FakeFiles files;
    platform::ManualQueue queue{clock};
    std::vector<std::string> lines;
    std::unique_ptr<helper::Controller> controller;

    // Creates and starts the controller on a machine at 60 °C (one profile has a sensor
    // that runs hot); `forget` drops the start's lines and exchanges.
    void start(bool forget = true) {
        controller = std::make_unique<helper::Controller>(helper::ControllerServices{
            queue, system, files, path, [this](std::string_view line) { lines.emplace_back(line); },
            [this] {
                return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
            }});
        controller->start();
        heat(60);
        if (forget) {
            machine.clearJournal();
            lines.clear();
        }
    }
    void setPolicy(const FanPolicy &policy, std::int64_t fan) {
        queue.sync([&] { controller->setPolicy(policy, fan); });
    }
    void heat(double celsius) {  // every temperature sensor
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
            for (const test::Write &w : test::takeWrites(machine)) {
                out.back() = w.first == "F0Tg" ? w.second : out.back();
            }
        }
        return out;
    }
    std::vector<bool> manual() const {
        std::vector<bool> out;
        for (std::size_t i = 0; i < machine.fanCount(); ++i) {
            out.push_back(machine.fanManual(i));
        }
        return out;
    }
    void expectNoExchangesOver(std::chrono::milliseconds time, const char *why) {
        machine.clearJournal();
        queue.advance(time);
        EXPECT_EQ(machine.totalExchanges(), 0u) << why;
    }
};

// Stored policies come back for fans that exist; until the first tick, and whenever no
// policy holds, the SMC is left alone.
TEST_P(ControllerTest, StartsOnAutoRestoresStoredPoliciesAndTicksOnlyWhileAPolicyHolds) {
    machine.keys().find(smc_fourcc("F1Md")) ? test::setNumber(machine, "F1Md", 1)
                                            : test::setNumber(machine, "FS! ", 2);
    files.put(path, R"({"7":{"fixed":{"rpm":3000}},"1":{"auto":{}},"0":{"fixed":{"rpm":"inf"}}})");
    start(false);
    auto essential =
        std::ranges::count(controller->discovery().sensors, true, &SensorDescriptor::essential);
    EXPECT_THAT(lines,
                ElementsAre(fmt::format("started; {} fan(s), {} control sensors; fans set to auto",
                                        machine.fanCount(), essential),
                            "fan 0: restored fixed max"));
    EXPECT_EQ(controller->policies(), (PolicyMap{{0, FanPolicy::fixed(INFINITY)}}));
    EXPECT_THAT(manual(), Each(false));
    expectNoExchangesOver(1900ms, "the first tick comes after 2 s");
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(6000));
    setPolicy(FanPolicy(), -1);
    expectNoExchangesOver(60s, "no policy, no ticks");
}

TEST_P(ControllerTest, RaisesAtOnceLowersBy400PerTickFromTheLastSuccessfulWrite) {
    start();
    setPolicy(FanPolicy::curve(FanCurve("50:1000,90:5000", CurveSensor::max)), 0);
    heat(80);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(4000));
    heat(52);  // 1200 rpm; the first write fails and is tried again from 4000
    machine.injectFault({smc_fourcc("F0Tg"), SMC_CMD_WRITE, 1, 0, 0x86});
    EXPECT_THAT(targetsOverTicks(10),
                ElementsAre(0, 3600, 3200, 2800, 2400, 2000, 1600, 1200, 0, 0));
    EXPECT_THAT(lines, ElementsAre(testing::_, testing::StartsWith("fan 0: write failed: ")));
    heat(70);  // 3000 rpm, then 3040 (not written) and 3060
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(3000));
    heat(70.4);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(0));
    heat(70.6);
    EXPECT_NEAR(targetsOverTicks(1).at(0), 3060, 1);
    setPolicy(FanPolicy::fixed(1200), 0);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(1200)) << "a new policy is not ramped";
}

TEST_P(ControllerTest, FailsafeHandsEveryFanBackResumesAfterThirtyCoolTicksAndShutdownEnds) {
    start();
    setPolicy(FanPolicy::fixed(2000), 0);
    heat(GetParam().hot);
    EXPECT_THAT(targetsOverTicks(2), ElementsAre(2000, 0));
    EXPECT_EQ(lines.back(), GetParam().failsafeLine);
    EXPECT_THAT(manual(), Each(false));
    heat(GetParam().cool);
    lines.clear();
    EXPECT_EQ(targetsOverTicks(30).back(), 2000) << "the engine's tests count the cool ticks";
    EXPECT_THAT(lines, ElementsAre(GetParam().resumeLine));

    // The soak checks the fans after a shutdown; the end-to-end tests its line.
    queue.sync([this] { controller->shutdown("signal 15"); });
    queue.async([this] { controller->tick(); });  // a request's tick queued behind the stop
    expectNoExchangesOver(10s, "after shutdown");
    EXPECT_THROW(controller->tick(), std::logic_error) << "off the queue";
}

TEST_P(ControllerTest, PolicyChangesAreValidatedLoggedAndSavedAndFailedSavesLogged) {
    start();
    // Their messages reach clients as replies (control_service_test.cpp).
    EXPECT_THROW(setPolicy(FanPolicy::fixed(-1), 0), FanControlError);
    EXPECT_THROW(setPolicy(FanPolicy::fixed(2500), 7), FanControlError);
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
    EXPECT_FALSE(machine.fanManual(1));
    files.setReadOnly(true);
    setPolicy(FanPolicy::fixed(3000), 0);
    EXPECT_EQ(lines.back(),
              "could not save policies: cannot create directory "
              "/var/lib/dev.ostrel: Read-only file system");
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(3000)) << "in force all the same";
    // Handing one fan back fails: every fan is reset.
    files.setReadOnly(false);
    lines.clear();
    machine.injectFault({std::nullopt, SMC_CMD_WRITE, 1, 0, 0x86});
    setPolicy(FanPolicy(), 0);
    EXPECT_THAT(lines.at(0),
                testing::MatchesRegex("fan 0: auto failed \\(.+\\); resetting all fans"));
    EXPECT_THAT(manual(), Each(false));
    setPolicy(FanPolicy::fixed(2500), -1);
    queue.advance(2s);
    setPolicy(FanPolicy(), -1);
    EXPECT_EQ(machine.number(smc_fourcc("Ftst")).value_or(0), 0) << "handed back with the fans";
    EXPECT_THAT(manual(), Each(false));
}

TEST_P(ControllerTest, WritesAgainWhatTheFirmwareTookBackOrASleepReset) {
    const char *taken = "fan 0: firmware took control back; re-applying";
    start();
    setPolicy(FanPolicy::fixed(2500), -1);
    targetsOverTicks(1);
    lines.clear();
    // A mode that fails to read once is not a takeover.
    machine.injectFault({smc_fourcc(machine.keys().find(smc_fourcc("F0Md")) ? "F0Md" : "FS! "),
                         SMC_CMD_READ, 1, 0, 0x86});
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(0));
    machine.takeOverFan(0);  // the fan's mode after it is the end-to-end healing's
    EXPECT_THAT(targetsOverTicks(2), ElementsAre(2500, 0));
    test::setNumber(machine, "F0Tg", 2560);
    EXPECT_THAT(targetsOverTicks(1), ElementsAre(2500));
    EXPECT_THAT(lines, ElementsAre(taken, taken)) << "once per event";

    // A sleep the clock did not see is healed as takeovers (the test key written again too).
    machine.sleepAndWake();
    EXPECT_THAT(targetsOverTicks(2), ElementsAre(2500, 0));
    EXPECT_THAT(manual(), Each(true));
    lines.clear();
    machine.sleepAndWake();
    clock.suspend(90s);
    EXPECT_THAT(targetsOverTicks(2), ElementsAre(2500, 0));
    EXPECT_THAT(lines, ElementsAre("resumed after 90 s asleep; re-applying fan policies"));
    EXPECT_THAT(manual(), Each(true));
    clock.suspend(4s);  // a stall, not a sleep
    targetsOverTicks(1);
    EXPECT_EQ(lines.size(), 1u);
}

TEST_P(ControllerTest, AllFansOnAMachineWithoutFansIsASuccessfulSave) {
    ASSERT_TRUE(machine.vanishKey(smc_fourcc("FNum")));
    start();
    setPolicy(FanPolicy::fixed(2500), -1);
    EXPECT_EQ(files.read(path), "{}");
    EXPECT_TRUE(lines.empty());
}

INSTANTIATE_TEST_SUITE_P(BuiltinMachines, ControllerTest, testing::ValuesIn(kProfiles),
                         testing::PrintToStringParamName());

// Thousands of ticks under faults, random policy changes and load, every invariant checked
// after every tick (the long run with its counts is bench/soak_bench.cpp). Among what no test
// above catches: fan limits that fail to read taken as 0 and 0 (every speed the minimum).
TEST(SoakTest, EveryInvariantHoldsUnderFaultsOnEveryBuiltinMachine) {
    ostrel::soak::Counts total;
    for (const Profile &profile : kProfiles) {
        ostrel::soak::Run run(profile.name, 16);
        run.run(5000);
        EXPECT_THAT(run.violations, testing::IsEmpty()) << profile.name;
        for (const auto &[name, count] : run.counts) {
            total[name] += count;
        }
    }
    // The runs went where it matters: every kind of fault met, every count of Counts above 0
    // (the failsafe left again, refused changes and failed saves among them).
    EXPECT_EQ(total.size(), 13u);
    EXPECT_THAT(total, Each(testing::Pair(testing::_, testing::Gt(0u))));
}

}  // namespace
