// The daemon as it runs: ostrel-helper and a virtual Mac as real processes in a sandbox,
// driven through the socket by this test program, which the build signs as the
// command-line program. Ticks are provoked by policy changes (each queues one) rather than
// waited for; only self-update waits for its real timer's first check, 5 s after start. What the
// control loop does with a tick (smoothing, the failsafe, healing after takeovers and sleep) is
// shown in-process (tests/helper), where time is fake; here, that the daemon runs it against a
// machine of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "support/daemon_abuse.h"
#include "support/daemon_rig.h"

namespace {

using namespace ostrel;

constexpr auto setPolicy = test::setPolicyLine;
const std::string kVersion = test::requestLine(1, ControlProtocol::Call::version);
const std::string kPolicies = test::requestLine(3, ControlProtocol::Call::policies);
const std::string kFixed2500 = R"({"fixed":{"rpm":2500}})";

class DaemonE2E : public testing::Test {
  protected:
    explicit DaemonE2E(const char *profile = "macbookpro16-1") : rig(profile) {}
    // Waits until the control loop has done everything queued so far, the tick a policy
    // change queues after its reply included. One request may still slip in ahead of that
    // tick (the reply leaves before the tick is queued); a second one, sent after the first
    // is answered, cannot: by then the policy change, tick queued, has finished.
    void settle() {
        rig.client(kPolicies);
        rig.client(kPolicies);
    }
    Json fan(int index) { return rig.status()["fans"][index]; }

    test::DaemonRig rig;
};

// A SIGKILL during saves leaves one whole save no older than acknowledged. Each signal
// hands every fan back, and a restart restores what was stored; a SIGKILL leaves the fans
// where they were, for --release-fans to hand back. (What the daemon answers is the control
// service's tests'.)
TEST_F(DaemonE2E, SignalsHandTheFansBackRestartsRestoreAndASigkillLeavesThemToReleaseFans) {
    EXPECT_THAT(test::killDuringSaves(rig, 20, 7), testing::IsEmpty());
    rig.start();
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGKILL}) {
        rig.client(setPolicy(1, -1, kFixed2500));
        settle();
        ASSERT_EQ(fan(1)["mode"], "manual") << "the tick queued after the reply wrote it";
        EXPECT_EQ(fan(1)["written"], 2500);
        rig.helper().signal(signal);
        EXPECT_EQ(rig.helper().wait(), signal == SIGKILL ? -SIGKILL : 0);
        if (signal == SIGKILL) {
            break;
        }
        EXPECT_EQ(rig.log().back(), "signal " + std::to_string(signal) + "; fans returned to auto");
        EXPECT_FALSE(rig.anyFanManual());
        rig.start();
        EXPECT_THAT(rig.log(), testing::Contains("fan 1: restored fixed 2500 rpm")) << signal;
    }
    ASSERT_TRUE(rig.anyFanManual());
    test::BackgroundProcess release(rig.helperPath(), {"--release-fans"}, rig.environment(),
                                    rig.logPath());
    EXPECT_EQ(release.wait(), 0);
    EXPECT_EQ(rig.log().back(), "fans returned to auto (release)");
    EXPECT_FALSE(rig.anyFanManual());
}

// A short run of bench/daemon_bench's abuse (450 malformed frames of five kinds, 100 silent
// connections, 5 clients that never read, a valid request from an unsigned peer, refused
// unanswered and logged) and a second daemon (refused the socket) change nothing, and a
// signed client is still served; replacing the executable (an update) then stops it.
TEST_F(DaemonE2E, AbuseAndASecondDaemonChangeNothingAndAReplacedExecutableStopsIt) {
    rig.start();
    rig.client(setPolicy(1, 0, kFixed2500));
    settle();
    auto state = [&] {
        return std::pair(rig.status()["fans"], test::fileBytes(rig.policiesPath()));
    };
    auto before = state();
    test::SocketAbuse abuse(rig.socket(), rig.helper().pid(), 5);
    abuse.holdIdle(100);
    abuse.deafClients(5, 2000);
    abuse.malformed(450);
    EXPECT_THAT(rig.ostrel({"set", "0", "auto"}, false).error,
                testing::HasSubstr("closed the connection without an answer"));
    test::BackgroundProcess second(rig.helperPath(), {}, rig.environment(), rig.logPath());
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(rig.log().back(), "another daemon is already serving " + rig.socket() + "; exiting");
    EXPECT_EQ(rig.client(kVersion), R"({"id":1,"reply":"1/1.1.13"})");
    EXPECT_EQ(state(), before);
    EXPECT_LT(abuse.peakFds, 300) << "a socket and a pidfd for each of 128 connections at most";
    EXPECT_LT(abuse.peakRssKib, 64 * 1024);
    test::DaemonRig::install(rig.helperPath() + ".next", nullptr);
    std::filesystem::rename(rig.helperPath() + ".next", rig.helperPath());
    EXPECT_EQ(rig.helper().wait(), 0);
    EXPECT_EQ(rig.log().back(), "executable replaced (update); fans returned to auto");
    EXPECT_FALSE(rig.anyFanManual());
}

// A load scenario drives the machine past the ceiling with every fan held at its minimum;
// ticks are provoked by policy changes while the virtual Mac's time is moved by hand.
TEST_F(DaemonE2E, TheFailsafeHandsTheFansBackWhenTheMachineRunsTooHotAndResumes) {
    rig.start();
    const std::string slow = setPolicy(1, -1, R"({"fixed":{"rpm":0}})");
    rig.client(slow);
    rig.ctl({"load", "--cpu", "1", "--gpu", "1"});
    rig.ctl({"advance", "900"});
    rig.client(slow);
    rig.client(slow);
    settle();
    EXPECT_THAT(rig.log(), testing::Contains(testing::StartsWith("FAILSAFE: ")));
    EXPECT_FALSE(rig.anyFanManual());
    rig.ctl({"load", "--cpu", "0", "--gpu", "0"});
    rig.ctl({"advance", "1800"});
    for (int i = 0; i < 30; ++i) {
        rig.client(slow);
    }
    settle();
    EXPECT_THAT(rig.log(), testing::Contains(testing::StartsWith("cooled to ")));
}

// The firmware takes a fan back, then the machine sleeps (on the Apple-silicon machine the
// test key is cleared too): the next tick, provoked by a change to fan 1 alone, puts fan 0
// back under control (the line it logs once per event is the controller's tests').
class HealingE2E : public DaemonE2E, public testing::WithParamInterface<const char *> {
  protected:
    HealingE2E() : DaemonE2E(GetParam()) {}
};

TEST_P(HealingE2E, TheNextTickTakesBackWhatTheFirmwareTook) {
    rig.start();
    rig.client(setPolicy(1, -1, kFixed2500));
    for (std::vector<std::string> event : {std::vector<std::string>{"takeover", "0"}, {"sleep"}}) {
        settle();
        rig.ctl(event);
        ASSERT_EQ(fan(0)["mode"], "auto") << event[0];
        rig.client(setPolicy(2, 1, R"({"fixed":{"rpm":2600}})"));
        settle();
        EXPECT_EQ(fan(0)["mode"], "manual") << event[0];
        EXPECT_EQ(fan(0)["written"], 2500) << event[0];
    }
}

INSTANTIATE_TEST_SUITE_P(ModeKeysAndTestKey, HealingE2E,
                         testing::Values("macbookpro16-1", "macbookpro18-2"));

// Self-update with a team of the test's own: the daemon signed by it, the candidate in the
// sandbox's package location. The first check comes 5 s after start, on the real clock;
// rejections and their logging are tested in-process on fake time.
TEST(SelfUpdateE2E, ANewerCopyOfTheTeamReplacesTheDaemonWhichStops) {
    SigningKey team = SigningKey::generate();
    test::DaemonRig rig("macbookpro16-1", &team);
    std::string source = rig.root() + "/usr/lib/ostrel/ostrel-helper";
    std::filesystem::create_directories(std::filesystem::path(source).parent_path());
    test::writeExecutable(
        source, test::signedBytes("#!/bin/sh\necho 1.1.14\nexit 0\n", "dev.ostrel.helper", &team));
    rig.start({"--source", source});
    EXPECT_EQ(rig.helper().wait(), 0);
    EXPECT_EQ(rig.log().back(),
              "updated itself to 1.1.14 from " + source + "; fans returned to auto");
    EXPECT_EQ(test::fileBytes(rig.helperPath()), test::fileBytes(source));
}

}  // namespace
