#include "ostrel/platform/clock.h"

#include <thread>

namespace ostrel::platform {

namespace {

class RealClock final : public Clock {
  public:
    WallTime now() const override { return std::chrono::system_clock::now(); }
    Monotonic monotonic() const override { return std::chrono::steady_clock::now(); }
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
