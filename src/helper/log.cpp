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
        std::size_t done = 0;
        while (done < line.size()) {
            ssize_t n = ::write(fd, line.data() + done, line.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return;
            }
            done += static_cast<std::size_t>(n);
        }
    } catch (...) {
        // No memory for the line, or no local time: the message is lost, the caller goes on.
    }
}

LogSink standardErrorLog(const platform::Clock &clock) {
    return [&clock](std::string_view message) { log(message, STDERR_FILENO, clock); };
}

}  // namespace ostrel::helper
