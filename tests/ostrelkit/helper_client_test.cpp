// The helper client against a fake daemon on a real socket, with its time limits on a
// ManualQueue: answers and refusals, each way of not reaching the daemon, time-outs that
// cost the connection, a restarted daemon, replies racing time-outs, teardown mid-request.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <future>

#include "ostrel/helper_client.h"
#include "support/fake_daemon.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using test::FakeDaemon;

// The text of a future's FanControlError, which must be of `kind`.
template <class T>
std::string failure(std::future<T> future,
                    FanControlError::Kind kind = FanControlError::Kind::helperUnavailable) {
    try {
        future.get();
    } catch (const FanControlError &e) {
        EXPECT_EQ(e.kind(), kind) << e.what();
        return e.text();
    }
    return "(succeeded)";
}

std::optional<std::string> answers(const ControlProtocol::Request &request) {
    if (request.call == ControlProtocol::Call::version) {
        return "1/1.1.13";
    }
    if (request.call == ControlProtocol::Call::policies) {
        return R"({"0":{"fixed":{"rpm":2500}},"1":{"fixed":{"rpm":"inf"}}})";
    }
    return request.fan == 7 ? std::optional<std::string>("no fan with id 7") : std::nullopt;
}

class HelperClientTest : public ::testing::Test {
  protected:
    std::string socket() const { return dir.path() + "/helper.sock"; }
    std::unique_ptr<FakeDaemon> daemon(FakeDaemon::Mode mode) {
        return std::make_unique<FakeDaemon>(socket(), mode, answers);
    }
    // Moves time to just short of `limit` (the request still waits), then to it.
    template <class T>
    std::string failureAt(std::chrono::milliseconds limit, std::future<T> future) {
        deadlines.advance(limit - 1ms);
        EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
        deadlines.advance(1ms);
        return failure(std::move(future));
    }

    test::TempDir dir;
    platform::FakeClock clock;
    platform::ManualQueue deadlines{clock};
};

TEST_F(HelperClientTest, AnswersArriveRefusalsKeepTheDaemonsWordsARestartIsReached) {
    auto fake = daemon(FakeDaemon::Mode::answer);
    HelperClient client(socket(), deadlines);
    auto version = client.version();
    auto accepted = client.setPolicy(FanPolicy::fixed(2500), 0);
    auto refused = client.setPolicy(FanPolicy::fixed(2500), 7);
    auto policies = client.policies();
    EXPECT_EQ(version.get(), "1/1.1.13");
    EXPECT_NO_THROW(accepted.get());
    EXPECT_EQ(failure(std::move(refused), FanControlError::Kind::helper), "no fan with id 7");
    EXPECT_EQ(policies.get(),
              (PolicyMap{{0, FanPolicy::fixed(2500)}, {1, FanPolicy::fixed(INFINITY)}}));
    EXPECT_EQ(fake->connections(), 1);  // all four in flight on one connection
    // A restarted daemon is reached again without a reset, and after one.
    fake.reset();
    fake = daemon(FakeDaemon::Mode::answer);
    EXPECT_EQ(client.version().get(), "1/1.1.13");
    client.reset();
    EXPECT_EQ(client.version().get(), "1/1.1.13");
    EXPECT_EQ(fake->connections(), 2);
}

TEST_F(HelperClientTest, EachWayOfNotReachingTheDaemonOrNotHearingFromItSaysWhatHappened) {
    const std::string status = " (is it installed and running? see: ostrel helper status)";
    EXPECT_EQ(failure(HelperClient(socket(), deadlines).version()),
              "no daemon is listening on " + socket() + status);
    daemon(FakeDaemon::Mode::answer);  // gone at once, its socket file left as a killed one's
    EXPECT_EQ(failure(HelperClient(socket(), deadlines).version()),
              "connection refused on " + socket() +
                  " (the daemon is not running; see: ostrel helper status)");
    auto refusing = daemon(FakeDaemon::Mode::closeWithoutAnswer);
    EXPECT_EQ(failure(HelperClient(socket(), deadlines).policies()),
              "the daemon closed the connection without an answer (this program's signature "
              "was not accepted; see docs/security.md)");

    // A silent daemon costs each request its limit and the connection.
    auto fake = daemon(FakeDaemon::Mode::silent);
    HelperClient client(socket(), deadlines);
    auto version = client.version();
    auto set = client.setPolicy(FanPolicy::fixed(2000), 0);
    fake->awaitRequests(2);
    EXPECT_EQ(failureAt(3s, std::move(version)), "no answer within 3 s");
    // The time-out dropped the connection, and with it the other request on it.
    EXPECT_EQ(failure(std::move(set)), "the connection was closed after a request got no answer");
    auto again = client.setPolicy(FanPolicy::fixed(2000), 0);
    fake->awaitRequests(3);
    EXPECT_EQ(failureAt(10s, std::move(again)), "no answer within 10 s");
    EXPECT_EQ(fake->connections(), 2);
    // A blocking call's own limit, told in whole seconds.
    EXPECT_EQ(failure(std::async(std::launch::deferred,
                                 [&] {
                                     return client.blocking(2.9, [&](HelperClient &c) {
                                         auto future = c.version();
                                         deadlines.advance(2900ms);  // the time the operation takes
                                         return future;
                                     });
                                 })),
              "timed out after 2s");
}

TEST_F(HelperClientTest, AReplyRacingItsTimeOutFinishesTheRequestOnce) {
    auto fake = daemon(FakeDaemon::Mode::answer);
    for (int round = 0; round < 50; ++round) {
        HelperClient client(socket(), deadlines);
        auto version = client.version();
        deadlines.advance(3s);  // here, while the reply comes in on the client's thread
        try {
            EXPECT_EQ(version.get(), "1/1.1.13");
        } catch (const FanControlError &e) {
            EXPECT_EQ(e.text(), "no answer within 3 s");
        }
        EXPECT_EQ(client.inFlight(), 0u);
    }
}

TEST_F(HelperClientTest, DestroyingTheClientFinishesItsRequestsAndLeavesNothingRunning) {
    auto threads = [] {
        auto tasks = std::filesystem::directory_iterator("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    auto before = threads();
    auto fake = daemon(FakeDaemon::Mode::silent);
    std::future<std::string> version;
    {
        HelperClient client(socket(), deadlines);
        version = client.version();
        client.policies();
    }
    EXPECT_EQ(failure(std::move(version)), "the client was closed before the daemon answered");
    EXPECT_EQ(deadlines.activeTimers(), 0u);
    fake.reset();
    EXPECT_EQ(threads(), before);
}

TEST(ReplyReaderTest, StopsAtALineThatIsNotAReplyOrIsTooLong) {
    EXPECT_EQ(ReplyReader().feed("{\"id\":1,\"reply\":null}\nnonsense\n").error,
              "a line that is not a reply");
    ReplyReader flooded;
    EXPECT_FALSE(flooded.feed(std::string(ControlProtocol::maxLineBytes, 'x')).error);
    EXPECT_TRUE(flooded.feed("x").error);
}

}  // namespace
