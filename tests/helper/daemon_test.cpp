// The daemon's entry in-process: its command line, the version and root checks, a failed
// SMC, --release-fans, the self-update check on fake time, the watchdog pings, the
// executable watch on real files and the log lines. Signals, the socket and whole runs are
// the end-to-end tests' (tests/e2e).

#include "daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <asio/io_context.hpp>
#include <filesystem>
#include <sstream>

#include "executable_watch.h"
#include "log.h"
#include "self_update_check.h"
#include "support/sandbox.h"
#include "support/self_update_rig.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using testing::ElementsAre;

// The flags the entry reads are its tests' and the end-to-end tests'.
TEST(DaemonArguments, TheFirstSourceWithAPathOnly) {
    EXPECT_EQ(helper::parseArguments({"h", "--source", "/a", "--source", "/b"}).source, "/a");
    EXPECT_FALSE(helper::parseArguments({"h", "--source"}).source) << "no path, no self-update";
}

// The entry with every service a fake, on a built-in machine in memory.
class DaemonEntryTest : public testing::Test, protected test::Sandbox {
  protected:
    vsmc::Machine machine = test::builtinMachine("macbookpro16-1");
    int opened = 0;
    std::ostringstream out;
    std::vector<std::string> lines;
    platform::FakeFiles files;
    platform::FakeFileAccess fileAccess;
    platform::FakeProcessAccess processAccess;
    platform::FakeProcesses processes;
    helper::FakeServiceManager manager;
    std::function<std::shared_ptr<SMC>()> openSMC = [this] {
        ++opened;
        return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
    };
    helper::LogSink log = [this](std::string_view line) { lines.emplace_back(line); };
    helper::DaemonServices services{out,           log,       env,     clock,   files, fileAccess,
                                    processAccess, processes, manager, openSMC, 1000,  1000};

    int run(std::vector<std::string> args) {
        args.insert(args.begin(), "/usr/local/libexec/dev.ostrel.helper");
        return helper::runDaemon(args, services);
    }
};

TEST_F(DaemonEntryTest, VersionForAnyoneThenRootOutsideASandboxThenTheSMC) {
    env.unset("OSTREL_ROOT");
    EXPECT_EQ(run({"--bogus", "x", "--source", "/x", "--print-version"}), 0);
    EXPECT_EQ(out.str(), "1.1.13\n");
    EXPECT_EQ(run({}), 1);
    EXPECT_EQ(run({"--release-fans"}), 1);
    EXPECT_EQ(opened, 0) << "no SMC access before the root check";
    env.set("OSTREL_ROOT", root.path());  // a sandbox runs as its user
    services.openSMC = []() -> std::shared_ptr<SMC> { throw SMCError::noService(); };
    EXPECT_EQ(run({}), 1);
    const std::string notRoot = "must run as root (installed by `ostrel helper install`)";
    EXPECT_THAT(lines,
                ElementsAre(notRoot, notRoot, "cannot open SMC: AppleSMC service not found"));
}

TEST_F(DaemonEntryTest, ReleaseFansSaysWhichFanRefusedAndStillHandsBackTheOthers) {
    test::setNumber(machine, "F0Md", 1);
    test::setNumber(machine, "F1Md", 1);
    machine.injectFault({smc_fourcc("F1Md"), SMC_CMD_WRITE, 2, 0, 0x86});
    EXPECT_EQ(run({"--release-fans"}), 1);
    EXPECT_FALSE(machine.fanManual(0)) << "the others are still handed back";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], testing::StartsWith("could not return fans to auto (release): fan 1: "));
}

// The check on a manual main loop: each minute of fake time is two checks. The update it
// stops the daemon for is the end-to-end tests'.
class SelfUpdateCheckTest : public testing::Test, protected test::SelfUpdateRig {
  protected:
    platform::FakeClock clock;
    platform::ManualQueue queue{clock};
    std::vector<std::string> lines;
    helper::SelfUpdateCheck check{source,
                                  destination,
                                  test::teamSigner(),
                                  services,
                                  [this](std::string_view line) { lines.emplace_back(line); },
                                  [](const std::string &) {}};
};

TEST_F(SelfUpdateCheckTest, ChecksAfterFiveSecondsThenEveryThirtyAndLogsEachReasonOnce) {
    static const SigningKey other = SigningKey::generate();
    put(source, &other);
    check.start(queue);
    queue.advance(4999ms);
    EXPECT_TRUE(processes.runs.empty() && lines.empty());
    queue.advance(1ms);
    queue.advance(30s);
    std::string unsigned_ = source + " is not signed by team " + test::teamKey().team();
    EXPECT_THAT(lines, ElementsAre("self-update skipped: " + unsigned_)) << "two checks, one line";
    put(source, &test::teamKey());
    files.put(destination, files.find(source)->bytes);
    queue.advance(60s);
    EXPECT_THAT(lines, ElementsAre(testing::_, "self-update: " + source + " is current"));
}

TEST(WatchdogTest, PingsFromTheQueueAtHalfTheIntervalSystemdAsksFor) {
    platform::FakeClock clock;
    platform::ManualQueue queue(clock);
    helper::FakeServiceManager manager;
    EXPECT_EQ(helper::startWatchdog(manager, queue), nullptr);
    manager.interval = 10s;
    auto timer = helper::startWatchdog(manager, queue);
    queue.advance(4999ms);
    EXPECT_TRUE(manager.sent().empty());
    queue.advance(5001ms);
    EXPECT_THAT(manager.sent(), ElementsAre("WATCHDOG=1", "WATCHDOG=1"));
}

// Each way of replacing a file but the update's renaming over it (the end-to-end tests'), and
// changes that are not one. inotify queues an event during the system call that causes it,
// so one poll of the loop afterwards sees it.
TEST(ExecutableWatchTest, StopsForReplacementsOnlyNotForTouchesOrNeighbours) {
    namespace fs = std::filesystem;
    const std::pair<const char *, std::function<void(const std::string &)>> actions[] = {
        {"deleted", [](const std::string &path) { fs::remove(path); }},
        {"renamed away", [](const std::string &path) { fs::rename(path, path + ".old"); }},
        {"written", [](const std::string &path) { std::ofstream(path, std::ios::app) << "x"; }},
    };
    for (const auto &[name, action] : actions) {
        test::TempDir dir;
        std::string path = dir.put("dev.ostrel.helper", "daemon");
        asio::io_context io;
        int replaced = 0;
        auto watch = helper::ExecutableWatch::start(io, path, [&] { ++replaced; });
        EXPECT_NE(watch, nullptr);
        ::chmod(path.c_str(), 0700);
        fs::last_write_time(path, fs::file_time_type::clock::now());
        dir.put("neighbour", "x");
        fs::remove(dir.path() + "/neighbour");
        io.poll();
        EXPECT_EQ(replaced, 0) << "a chmod, a touch, a neighbour";
        action(path);
        io.poll();
        EXPECT_EQ(replaced, 1) << name;
    }
    asio::io_context io;
    EXPECT_EQ(helper::ExecutableWatch::start(io, "/nonexistent/x", [] {}), nullptr);
}

// The line's form; that log() writes it whole is what every end-to-end test reads back.
TEST(LogTest, OneLineOfLocalTimeNameAndTheMessageAsItIs) {
    // 2024-05-01 14:03:27 UTC; whatever the time zone, the seconds stay 27.
    platform::Clock::WallTime when(std::chrono::seconds(1714572207));
    const char *kStamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:27 ostrel-helper: ";
    for (std::string message :
         {"", "signal 15; fans returned to auto", "two\nlines", "FAILSAFE: 96.3 °C ≥ 95 °C"}) {
        std::string line = helper::logLine(message, when);
        EXPECT_THAT(line, testing::MatchesRegex(std::string(kStamp) + ".*")) << line;
        EXPECT_EQ(line.substr(line.find(": ") + 2), message + "\n");
    }
}

}  // namespace
