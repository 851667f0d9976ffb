// Serial queues: the daemon's one concurrency primitive. Work handed to a queue runs one
// piece at a time, in the order it was queued, on the queue's own thread, so state that
// only queued work touches needs no lock. A queue also fires repeating timers among its
// work.
//
// `SerialQueue` is the real one (an Asio io_context run by one thread of its own);
// `RunLoop` is the same on a thread that its owner lends it (the daemon's main thread);
// `ManualQueue` is their deterministic stand-in for tests: work runs on the test's thread
// when the test says so, and timers fire as a FakeClock is moved forward.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ostrel/platform/clock.h"

namespace asio {
class io_context;
}

namespace ostrel::platform {

class Queue {
  public:
    using Task = std::function<void()>;
    using Duration = std::chrono::nanoseconds;

    // A repeating timer's handle. Cancelling (or destroying the handle) stops the timer:
    // called on the queue itself, no firing runs after it returns; called from another
    // thread, a firing already running may finish, but none starts afterwards.
    class Timer {
      public:
        virtual ~Timer() = default;
        virtual void cancel() = 0;
    };

    virtual ~Queue() = default;

    // Queues `task` and returns at once. Callable from any thread, the queue's included.
    // The queue sets no limit of its own on waiting work: whoever queues work for peers
    // bounds it (the control service limits requests per connection and connections).
    virtual void async(Task task) = 0;
    // Queues `task` and waits until it has run, after everything queued before it; an
    // exception it throws comes out here. Callable from any thread except the queue's own:
    // there it could only wait for itself, so it throws std::logic_error instead.
    virtual void sync(Task task) = 0;
    // Runs `task` on the queue first at now + `first`, then every `interval` (which must be
    // positive) on the grid of those deadlines. `leeway` is how late a firing may be, never
    // how early: each firing comes at its deadline or up to `leeway` after it, as the queue
    // can. Firings missed while the queue was busy are coalesced into one, run as soon as
    // the queue is free; the grid stays. Callable from any thread.
    virtual std::unique_ptr<Timer> repeating(Duration first, Duration interval, Duration leeway,
                                             Task task) = 0;
    // True on the queue's thread while it runs queued work or a timer.
    virtual bool isCurrent() const = 0;

    // After a firing due at `deadline` ran, the deadline of the next one at time `now`: one
    // interval later, or, when the queue fell behind by several intervals, the latest grid
    // point already passed, so that the missed firings make one.
    static Clock::Monotonic nextDeadline(Clock::Monotonic deadline, Duration interval,
                                         Clock::Monotonic now);
};

// A serial queue run by an Asio io_context on the thread that calls run(). Other Asio
// objects may live on context() (signal sets, descriptors); their handlers then take turns
// with the queue's work.
class RunLoop final : public Queue {
  public:
    // `uncaught` receives the message of any exception that escapes a queued task or timer
    // (the loop goes on with the next piece of work); it runs on the loop.
    explicit RunLoop(std::function<void(const std::string &)> uncaught);
    // Drops whatever is still queued. Must not run while run() does.
    ~RunLoop() override;
    RunLoop(const RunLoop &) = delete;
    RunLoop &operator=(const RunLoop &) = delete;

    // Serves work, timers and the context's other objects on the calling thread, which is
    // the loop's from then on, until quit(). Once.
    void run();
    // Makes run() return after the work queued so far; later work and timers are dropped.
    // Any thread.
    void quit();
    asio::io_context &context();

    void async(Task task) override;
    // Needs run() going on another thread; on the loop's own it throws std::logic_error.
    void sync(Task task) override;
    std::unique_ptr<Timer> repeating(Duration first, Duration interval, Duration leeway,
                                     Task task) override;
    bool isCurrent() const override;

  private:
    struct Impl;  // keeps Asio out of this header
    std::unique_ptr<Impl> impl_;
};

// A serial queue run by an Asio io_context on one thread of its own.
class SerialQueue final : public Queue {
  public:
    // Starts the thread, named after the label's last 15 characters without leading dots
    // (the kernel keeps 15): "dev.ostrel.helper.control" runs as "helper.control".
    // `uncaught` receives the message of any exception that escapes a queued task or timer
    // (the queue goes on with the next piece of work); it runs on the queue.
    SerialQueue(std::string label, std::function<void(const std::string &)> uncaught);
    // Runs the work queued so far, drops the timers and anything queued later, then joins
    // the thread. Must not run on the queue itself.
    ~SerialQueue() override;
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    void async(Task task) override;
    void sync(Task task) override;
    std::unique_ptr<Timer> repeating(Duration first, Duration interval, Duration leeway,
                                     Task task) override;
    bool isCurrent() const override;

    const std::string &label() const { return label_; }

  private:
    std::string label_;
    RunLoop loop_;
    std::thread thread_;
};

// A queue that runs its work on the caller's thread when told to, for tests. Timers fire
// at exactly their deadlines on `clock`'s monotonic time (leeway is never used) as
// advance() moves the clock. Work that moves the clock itself (a fake sleep) delays the
// next firings as a busy queue would. Exceptions from work propagate out of runPending,
// advance and sync, so a test sees them. Single-threaded.
class ManualQueue final : public Queue {
  public:
    // `clock` must outlive the queue.
    explicit ManualQueue(FakeClock &clock) : clock_(clock) {}

    void async(Task task) override { tasks_.push_back(std::move(task)); }
    // Runs everything queued before `task`, then `task`.
    void sync(Task task) override;
    std::unique_ptr<Timer> repeating(Duration first, Duration interval, Duration leeway,
                                     Task task) override;
    bool isCurrent() const override { return running_; }

    // Runs queued work, including work queued meanwhile, until none is left; returns how
    // many tasks ran.
    std::size_t runPending();
    // Moves the clock forward by `by`, firing every timer at each deadline reached, in time
    // order, and running queued work after each firing and at the end.
    void advance(Duration by);
    std::size_t pending() const { return tasks_.size(); }
    // Timers not cancelled.
    std::size_t activeTimers() const;

  private:
    struct Entry {
        Clock::Monotonic deadline;
        Duration interval;
        Task task;
        std::shared_ptr<bool> cancelled;
    };
    class ManualTimer;

    void runOne(Task &task);

    FakeClock &clock_;
    std::deque<Task> tasks_;
    std::vector<Entry> timers_;
    bool running_ = false;
};

}  // namespace ostrel::platform
