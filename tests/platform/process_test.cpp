// Running programs for real: what comes back of their streams and status, the time limit
// (on a clock that never moves, so a zero limit kills at once), and that a child does not
// inherit what its parent ignores.

#include <gtest/gtest.h>

#include <csignal>

#include "ostrel/platform/process.h"

namespace {

using namespace ostrel::platform;

ProcessLaunch shell(std::string script) {
    ProcessLaunch launch;
    launch.program = "/bin/sh";
    launch.args = {"-c", std::move(script)};
    launch.error = Stream::capture;
    return launch;
}

TEST(ProcessTest, StreamsStatusLimitsStartFailuresAndSignalHandling) {
    FakeClock clock;
    auto processes = realProcesses(clock);

    ProcessResult done = processes->run(shell("echo out; echo err >&2; exit 3"));
    EXPECT_EQ(done.output, "out\n");
    EXPECT_EQ(done.error, "err\n");
    EXPECT_EQ(done.exitCode, 3);
    EXPECT_FALSE(done.timedOut);

    ProcessLaunch chatty = shell("head -c 1000000 /dev/zero; echo tail >&2");
    chatty.captureLimit = 10;
    ProcessResult capped = processes->run(chatty);
    EXPECT_EQ(capped.output.size(), 10u);
    EXPECT_EQ(capped.error, "tail\n");
    EXPECT_TRUE(capped.succeeded());

    // A grandchild holding the pipe open does not keep the caller waiting.
    ProcessResult parent = processes->run(shell("sleep 30 & echo $!"));
    EXPECT_TRUE(parent.succeeded());
    ::kill(std::stoi(parent.output), SIGKILL);

    ProcessLaunch slow = shell("exec sleep 30");
    slow.timeout = std::chrono::milliseconds(0);
    ProcessResult killed = processes->run(slow);
    EXPECT_TRUE(killed.timedOut);
    EXPECT_EQ(killed.signal, SIGKILL);
    EXPECT_FALSE(killed.exitCode);

    ProcessLaunch missing;
    missing.program = "/nonexistent/program";
    EXPECT_EQ(processes->run(missing).startError, ENOENT);

    // What the parent ignores, the child does not.
    auto previous = std::signal(SIGTERM, SIG_IGN);
    ProcessResult result = processes->run(shell("kill -TERM $$; exit 0"));
    std::signal(SIGTERM, previous);
    EXPECT_EQ(result.signal, SIGTERM);
}

}  // namespace
