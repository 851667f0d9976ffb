// Serial queues: the Asio queue's order, waiting and refusals, and the manual queue's
// timers on a fake clock.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <future>
#include <stdexcept>

#include "ostrel/platform/serial_queue.h"

namespace {

using namespace ostrel::platform;
using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(SerialQueueTest, RunsWorkInOrderOnItsNamedThreadAndNeverWaitsForItself) {
    std::vector<std::string> uncaught;
    SerialQueue queue("dev.ostrel.helper.control",
                      [&](const std::string &message) { uncaught.push_back(message); });
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) {
        queue.async([&, i] { order.push_back(queue.isCurrent() ? i : -1); });
    }
    queue.async([] { throw std::runtime_error("lost task"); });
    queue.async([&] { queue.sync([] {}); });  // refused, not a deadlock
    char name[16] = {};
    queue.sync([&] { pthread_getname_np(pthread_self(), name, sizeof name); });
    EXPECT_EQ(order.size(), 100u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()) && order.front() == 0);
    EXPECT_STREQ(name, "helper.control");
    EXPECT_THAT(uncaught, ElementsAre("lost task", testing::HasSubstr("from the queue itself")));
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("x"); }), std::runtime_error);
}

TEST(SerialQueueTest, ATimerCancelledInItsOwnFiringFiresNoMore) {
    SerialQueue queue("test", {});
    int firings = 0;
    std::promise<void> third;
    std::unique_ptr<Queue::Timer> timer;
    queue.sync([&] {
        timer = queue.repeating(0ms, 1ms, 0ms, [&] {
            if (++firings == 3) {
                timer->cancel();
                third.set_value();
            }
        });
    });
    third.get_future().wait();
    queue.sync([] {});
    EXPECT_EQ(firings, 3);
    EXPECT_THROW(queue.repeating(0ms, 0ms, 0ms, [] {}), std::invalid_argument);
}

TEST(RunLoopTest, ServesWorkAndOtherAsioObjectsOnTheRunningThreadUntilQuit) {
    RunLoop loop({});
    std::vector<std::string> seen;
    loop.async([&] { seen.push_back(loop.isCurrent() ? "task" : "elsewhere"); });
    asio::post(loop.context(), [&] { seen.push_back("asio"); });
    std::thread helper;
    loop.async([&] {
        helper = std::thread([&] {
            loop.sync([&] { seen.push_back("sync"); });
            loop.quit();
            loop.async([&] { seen.push_back("after quit"); });
        });
    });
    loop.run();
    helper.join();
    EXPECT_THAT(seen, ElementsAre("task", "asio", "sync"));
    EXPECT_FALSE(loop.isCurrent());
}

TEST(ManualQueueTest, TimersFireOnTheirGridAndCoalesceWhatABusyQueueMissed) {
    FakeClock clock;
    ManualQueue queue(clock);
    auto start = clock.monotonic();
    std::vector<double> fired;  // seconds since start
    auto at = [&] { return std::chrono::duration<double>(clock.monotonic() - start).count(); };
    auto timer = queue.repeating(2s, 2s, 200ms, [&] {
        fired.push_back(at());
        if (fired.size() == 2) {
            clock.sleepFor(5s);  // busy from 4 s to 9 s: the firings due at 6 and 8 make one
        }
    });
    queue.advance(1999ms);
    EXPECT_THAT(fired, ElementsAre());
    queue.advance(11s);
    EXPECT_THAT(fired, ElementsAre(2, 4, 9, 10, 12)) << "the grid stays at even seconds";
    timer->cancel();
    queue.advance(10s);
    EXPECT_EQ(fired.size(), 5u);
    EXPECT_EQ(queue.activeTimers(), 0u);
}

}  // namespace
