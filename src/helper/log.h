// The daemon's log: one line per event on standard error, which systemd appends to the log
// file (HelperConstants::logFile), e.g.
//   2024-05-01 14:03:27 ostrel-helper: signal 15; fans returned to auto
// No levels, no categories, no configuration: every message of the daemon is one line.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "ostrel/platform/clock.h"

namespace ostrel::helper {

// Where the daemon's parts send their messages. Callable from any thread.
using LogSink = std::function<void(std::string_view message)>;

// The line for `message` at `when`: the local time as "%Y-%m-%d %H:%M:%S", then
// " ostrel-helper: ", the message as it is (line breaks and all, nothing escaped), and a
// newline.
std::string logLine(std::string_view message, platform::Clock::WallTime when);

// Writes the line for `message` at `clock`'s time to `fd` in one write(2), so that lines
// logged from several threads never interleave. Never fails visibly: a line that cannot be
// written is lost. Any thread.
void log(std::string_view message, int fd, const platform::Clock &clock) noexcept;

// A sink that logs to standard error on `clock`, which must outlive it.
LogSink standardErrorLog(const platform::Clock &clock);

}  // namespace ostrel::helper
