// Time behind an interface: the real clocks, or a fake that tests move by hand. Nothing in
// the project reads a clock or sleeps except through this.
#pragma once

#include <chrono>

namespace ostrel::platform {

class Clock {
  public:
    using WallTime = std::chrono::system_clock::time_point;
    using Monotonic = std::chrono::steady_clock::time_point;

    virtual ~Clock() = default;
    // The date and time (for timestamps people read).
    virtual WallTime now() const = 0;
    // A clock that never jumps (for intervals).
    virtual Monotonic monotonic() const = 0;
    // Blocks the calling thread for `duration`.
    virtual void sleepFor(std::chrono::nanoseconds duration) = 0;
};

// The system's clocks. Thread-safe.
Clock &realClock();

// A clock that only moves when told to; sleeping moves it by the duration slept and
// counts the sleeps. Not thread-safe.
class FakeClock final : public Clock {
  public:
    explicit FakeClock(WallTime start = WallTime(std::chrono::hours(24 * 365 * 56)))
        : wall_(start) {}

    WallTime now() const override { return wall_; }
    Monotonic monotonic() const override { return mono_; }
    void sleepFor(std::chrono::nanoseconds duration) override {
        ++sleeps_;
        slept_ += duration;
        advance(duration);
    }

    void advance(std::chrono::nanoseconds by) {
        wall_ += std::chrono::duration_cast<WallTime::duration>(by);
        mono_ += std::chrono::duration_cast<Monotonic::duration>(by);
    }
    int sleeps() const { return sleeps_; }
    std::chrono::nanoseconds slept() const { return slept_; }

  private:
    WallTime wall_;
    Monotonic mono_{};
    int sleeps_ = 0;
    std::chrono::nanoseconds slept_{0};
};

}  // namespace ostrel::platform
