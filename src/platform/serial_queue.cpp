#include "ostrel/platform/serial_queue.h"

#include <pthread.h>

#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

namespace ostrel::platform {

Clock::Monotonic Queue::nextDeadline(Clock::Monotonic deadline, Duration interval,
                                     Clock::Monotonic now) {
    Clock::Monotonic next = deadline + interval;
    if (next < now) {
        next = deadline + (now - deadline) / interval * interval;
    }
    return next;
}

namespace {

std::logic_error syncOnItself(const std::string &label) {
    return std::logic_error("sync on queue '" + label + "' from the queue itself");
}

void checkInterval(Queue::Duration interval) {
    if (interval <= Queue::Duration::zero()) {
        throw std::invalid_argument("a repeating timer needs a positive interval");
    }
}

}  // namespace

// ---- RunLoop and SerialQueue ----------------------------------------------------------

struct RunLoop::Impl {
    std::function<void(const std::string &)> uncaught;
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};
    // The thread in run(); shared with timer handles, which may outlive the loop.
    std::shared_ptr<std::atomic<std::thread::id>> runner =
        std::make_shared<std::atomic<std::thread::id>>();

    // Runs a task; an exception it lets out is reported, and the loop goes on.
    void run(const Task &task) const {
        try {
            task();
        } catch (const std::exception &e) {
            report(e.what());
        } catch (...) {
            report("unknown exception");
        }
    }

    void report(const std::string &message) const {
        if (uncaught) {
            try {
                uncaught(message);
            } catch (...) {
            }
        }
    }
};

namespace {

// One repeating timer. The pending wait owns the state; the handle only watches it, so
// the state goes away with the io_context however long the handle lives.
struct TimerState : std::enable_shared_from_this<TimerState> {
    TimerState(asio::io_context &io, Queue::Duration interval, Queue::Task task,
               std::shared_ptr<std::atomic<bool>> cancelled)
        : timer(io), interval(interval), task(std::move(task)), cancelled(std::move(cancelled)) {}

    template <typename Run>
    void arm(Clock::Monotonic deadline, Run run) {
        timer.expires_at(deadline);
        timer.async_wait([self = shared_from_this(), deadline, run](const std::error_code &error) {
            if (error || *self->cancelled) {
                return;
            }
            run(self->task);
            if (!*self->cancelled) {
                self->arm(Queue::nextDeadline(deadline, self->interval, realClock().monotonic()),
                          run);
            }
        });
    }

    asio::steady_timer timer;
    Queue::Duration interval;
    Queue::Task task;
    std::shared_ptr<std::atomic<bool>> cancelled;
};

class AsioTimerHandle final : public Queue::Timer {
  public:
    AsioTimerHandle(std::shared_ptr<std::atomic<std::thread::id>> runner,
                    std::weak_ptr<TimerState> state, std::shared_ptr<std::atomic<bool>> cancelled)
        : runner_(std::move(runner)), state_(std::move(state)), cancelled_(std::move(cancelled)) {}
    ~AsioTimerHandle() override { cancel(); }

    void cancel() override {
        *cancelled_ = true;
        // Off the queue the wait just ends at its deadline; on it, release it now.
        if (std::this_thread::get_id() == runner_->load()) {
            if (auto state = state_.lock()) {
                state->timer.cancel();
            }
        }
    }

  private:
    std::shared_ptr<std::atomic<std::thread::id>> runner_;
    std::weak_ptr<TimerState> state_;
    std::shared_ptr<std::atomic<bool>> cancelled_;
};

}  // namespace

RunLoop::RunLoop(std::function<void(const std::string &)> uncaught)
    : impl_(std::make_unique<Impl>()) {
    impl_->uncaught = std::move(uncaught);
}

RunLoop::~RunLoop() = default;

void RunLoop::run() {
    impl_->runner->store(std::this_thread::get_id());
    impl_->io.run();
    impl_->runner->store(std::thread::id());
}

void RunLoop::quit() {
    asio::post(impl_->io, [impl = impl_.get()] { impl->io.stop(); });
    impl_->work.reset();
}

asio::io_context &RunLoop::context() {
    return impl_->io;
}

void RunLoop::async(Task task) {
    asio::post(impl_->io, [impl = impl_.get(), task = std::move(task)] { impl->run(task); });
}

void RunLoop::sync(Task task) {
    if (isCurrent()) {
        throw syncOnItself("run loop");
    }
    std::promise<void> done;
    asio::post(impl_->io, [&task, &done] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    done.get_future().get();
}

std::unique_ptr<Queue::Timer> RunLoop::repeating(Duration first, Duration interval,
                                                 Duration /*leeway*/, Task task) {
    // Asio timers have no leeway: they fire at the deadline, as soon as the queue is free,
    // which is within any leeway the caller allows.
    checkInterval(interval);
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    auto state = std::make_shared<TimerState>(impl_->io, interval, std::move(task), cancelled);
    Clock::Monotonic deadline = realClock().monotonic() + first;
    // Armed on the queue: Asio timers are not to be touched from two threads at once.
    asio::post(impl_->io, [state, deadline, impl = impl_.get()] {
        state->arm(deadline, [impl](const Task &t) { impl->run(t); });
    });
    return std::make_unique<AsioTimerHandle>(impl_->runner, state, std::move(cancelled));
}

bool RunLoop::isCurrent() const {
    return std::this_thread::get_id() == impl_->runner->load();
}

SerialQueue::SerialQueue(std::string label, std::function<void(const std::string &)> uncaught)
    : label_(std::move(label)), loop_(std::move(uncaught)) {
    std::string name = label_.substr(label_.size() > 15 ? label_.size() - 15 : 0);
    name.erase(0, std::min(name.find_first_not_of('.'), name.size()));
    thread_ = std::thread([this, name] {
        pthread_setname_np(pthread_self(), name.c_str());
        loop_.run();
    });
}

SerialQueue::~SerialQueue() {
    loop_.quit();
    thread_.join();
}

void SerialQueue::async(Task task) {
    loop_.async(std::move(task));
}

void SerialQueue::sync(Task task) {
    if (isCurrent()) {
        throw syncOnItself(label_);
    }
    loop_.sync(std::move(task));
}

std::unique_ptr<Queue::Timer> SerialQueue::repeating(Duration first, Duration interval,
                                                     Duration leeway, Task task) {
    return loop_.repeating(first, interval, leeway, std::move(task));
}

bool SerialQueue::isCurrent() const {
    // The thread is the loop's from its start, before run() records it.
    return std::this_thread::get_id() == thread_.get_id();
}

// ---- ManualQueue ----------------------------------------------------------------------

class ManualQueue::ManualTimer final : public Queue::Timer {
  public:
    explicit ManualTimer(std::shared_ptr<bool> cancelled) : cancelled_(std::move(cancelled)) {}
    ~ManualTimer() override { cancel(); }
    void cancel() override { *cancelled_ = true; }

  private:
    std::shared_ptr<bool> cancelled_;
};

void ManualQueue::runOne(Task &task) {
    running_ = true;
    try {
        task();
    } catch (...) {
        running_ = false;
        throw;
    }
    running_ = false;
}

void ManualQueue::sync(Task task) {
    if (running_) {
        throw syncOnItself("manual");
    }
    tasks_.push_back(std::move(task));
    for (std::size_t n = tasks_.size(); n > 0; --n) {
        Task next = std::move(tasks_.front());
        tasks_.pop_front();
        runOne(next);
    }
}

std::unique_ptr<Queue::Timer> ManualQueue::repeating(Duration first, Duration interval,
                                                     Duration /*leeway*/, Task task) {
    checkInterval(interval);
    auto cancelled = std::make_shared<bool>(false);
    timers_.push_back({clock_.monotonic() + first, interval, std::move(task), cancelled});
    return std::make_unique<ManualTimer>(std::move(cancelled));
}

std::size_t ManualQueue::runPending() {
    std::size_t ran = 0;
    while (!tasks_.empty()) {
        Task next = std::move(tasks_.front());
        tasks_.pop_front();
        runOne(next);
        ++ran;
    }
    return ran;
}

void ManualQueue::advance(Duration by) {
    Clock::Monotonic target = clock_.monotonic() + by;
    for (;;) {
        runPending();
        std::erase_if(timers_, [](const Entry &e) { return *e.cancelled; });
        auto due = std::min_element(
            timers_.begin(), timers_.end(),
            [](const Entry &a, const Entry &b) { return a.deadline < b.deadline; });
        if (due == timers_.end() || due->deadline > target) {
            break;
        }
        if (due->deadline > clock_.monotonic()) {
            clock_.advance(due->deadline - clock_.monotonic());
        }
        // The task may add or cancel timers, so keep what is needed afterwards.
        Entry fired = *due;
        runOne(fired.task);
        for (Entry &e : timers_) {
            if (e.cancelled == fired.cancelled) {
                e.deadline = nextDeadline(fired.deadline, fired.interval, clock_.monotonic());
            }
        }
    }
    if (clock_.monotonic() < target) {
        clock_.advance(target - clock_.monotonic());
    }
    runPending();
}

std::size_t ManualQueue::activeTimers() const {
    return static_cast<std::size_t>(std::count_if(timers_.begin(), timers_.end(),
                                                  [](const Entry &e) { return !*e.cancelled; }));
}

}  // namespace ostrel::platform
