// Time behind an interface: the real clocks, or a fake that tests move by hand. Nothing in
// the project reads a clock or sleeps except through this: library code is handed a Clock
// by its executable's main, and the real implementations of the other interfaces (the
// serial queue's timers) ask realClock(). Event loops may wake on their own timers, but
// how much time has passed is always this interface's answer, so a test that moves a fake
// clock decides what the code sees.
#pragma once

#include <chrono>
#include <mutex>

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
    // Time since boot, counting time spent suspended, which monotonic() does not: how far
    // the two drifted apart between two readings is how long the machine slept.
    virtual std::chrono::nanoseconds sinceBoot() const = 0;
    // Blocks the calling thread for `duration`.
    virtual void sleepFor(std::chrono::nanoseconds duration) = 0;
};

// The system's clocks. Thread-safe.
Clock &realClock();

// A clock that only moves when told to; sleeping moves it by the duration slept and
// counts the sleeps (a thread's sleeps; the machine's are suspend()). Thread-safe, so a
// test may move it while a server thread reads it.
class FakeClock final : public Clock {
  public:
    explicit FakeClock(WallTime start = WallTime(std::chrono::hours(24 * 365 * 56)))
        : wall_(start) {}

    WallTime now() const override {
        std::lock_guard guard(lock_);
        return wall_;
    }
    Monotonic monotonic() const override {
        std::lock_guard guard(lock_);
        return mono_;
    }
    std::chrono::nanoseconds sinceBoot() const override {
        std::lock_guard guard(lock_);
        return boot_;
    }
    void sleepFor(std::chrono::nanoseconds duration) override {
        std::lock_guard guard(lock_);
        ++sleeps_;
        slept_ += duration;
        move(duration);
    }

    void advance(std::chrono::nanoseconds by) {
        std::lock_guard guard(lock_);
        move(by);
    }
    // The machine is suspended for `by`: the date and the boot clock move on, the
    // monotonic clock (and so every timer) stands still.
    void suspend(std::chrono::nanoseconds by) {
        std::lock_guard guard(lock_);
        wall_ += std::chrono::duration_cast<WallTime::duration>(by);
        boot_ += by;
    }
    int sleeps() const {
        std::lock_guard guard(lock_);
        return sleeps_;
    }
    std::chrono::nanoseconds slept() const {
        std::lock_guard guard(lock_);
        return slept_;
    }

  private:
    void move(std::chrono::nanoseconds by) {
        wall_ += std::chrono::duration_cast<WallTime::duration>(by);
        mono_ += std::chrono::duration_cast<Monotonic::duration>(by);
        boot_ += by;
    }

    mutable std::mutex lock_;
    WallTime wall_;
    Monotonic mono_{};
    std::chrono::nanoseconds boot_{0};
    int sleeps_ = 0;
    std::chrono::nanoseconds slept_{0};
};

}  // namespace ostrel::platform
