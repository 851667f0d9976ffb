#include "log.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

namespace ostrel::helper {

std::string logLine(std::string_view message, platform::Clock::WallTime when) {
    std::tm local = fmt::localtime(std::chrono::system_clock::to_time_t(when));
    return fmt::format("{:%Y-%m-%d %H:%M:%S} ostrel-helper: {}\n", local, message);
}

void log(std::string_view message, int fd, const platform::Clock &clock) noexcept {
    try {
        std::string line = logLine(message, clock.now());
        // One write: with O_APPEND (as systemd opens the log) the line lands whole.
        while (::write(fd, line.data(), line.size()) < 0 && errno == EINTR) {
        }
    } catch (...) {
        // No memory for the line, or no local time: the message is lost, the caller goes on.
    }
}

LogSink standardErrorLog(const platform::Clock &clock) {
    return [&clock](std::string_view message) { log(message, STDERR_FILENO, clock); };
}

}  // namespace ostrel::helper
