#include "ostrel/platform/clock.h"

#include <time.h>

#include <thread>

namespace ostrel::platform {

namespace {

class RealClock final : public Clock {
  public:
    WallTime now() const override { return std::chrono::system_clock::now(); }
    Monotonic monotonic() const override { return std::chrono::steady_clock::now(); }
    std::chrono::nanoseconds sinceBoot() const override {
        timespec now{};
        // CLOCK_BOOTTIME exists on every kernel this runs on and cannot fail with a valid
        // pointer; should it, the monotonic time keeps the caller from seeing a sleep.
        if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
            return std::chrono::steady_clock::now().time_since_epoch();
        }
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    }
    void sleepFor(std::chrono::nanoseconds duration) override {
        std::this_thread::sleep_for(duration);
    }
};

}  // namespace

Clock &realClock() {
    static RealClock clock;
    return clock;
}

}  // namespace ostrel::platform
