// The daemon's log lines, read back through a pipe.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "log.h"

namespace {

using namespace ostrel;

// What one log call writes, read from the other end of a pipe.
std::string logged(std::string_view message, const platform::Clock &clock) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    helper::log(message, fds[1], clock);
    close(fds[1]);
    std::string out(4096, '\0');
    ssize_t n = read(fds[0], out.data(), out.size());
    close(fds[0]);
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

TEST(LogTest, OneLineOfLocalTimeNameAndTheMessageAsItIs) {
    // 2024-05-01 14:03:27 UTC; whatever the time zone, the seconds stay 27.
    platform::FakeClock clock(platform::Clock::WallTime(std::chrono::seconds(1714572207)));
    const char *kStamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:27 ostrel-helper: ";
    for (std::string message :
         {"", "signal 15; fans returned to auto", "two\nlines", "FAILSAFE: 96.3 °C ≥ 95 °C"}) {
        std::string line = logged(message, clock);
        EXPECT_THAT(line, testing::MatchesRegex(std::string(kStamp) + ".*")) << line;
        EXPECT_EQ(line.substr(line.find(": ") + 2), message + "\n");
    }
}

}  // namespace
