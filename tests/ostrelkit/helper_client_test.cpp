// The helper client against a fake daemon on a real socket, with its time limits on a
// ManualQueue: answers and refusals, each way a connection fails, time-outs that cost the
// connection, a restarted daemon, replies racing time-outs, and teardown mid-request.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "ostrel/helper_client.h"
#include "ostrel/json.h"
#include "support/fake_daemon.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using test::FakeDaemon;
using Request = ControlProtocol::Request;

// The message a future's failure carries (it must be a FanControlError of `kind`).
template <class T>
std::string failure(std::future<T> future, FanControlError::Kind kind) {
    try {
        future.get();
    } catch (const FanControlError &e) {
        EXPECT_EQ(e.kind(), kind) << e.what();
        return e.text();
    }
    ADD_FAILURE() << "the request succeeded";
    return "";
}

std::optional<std::string> answers(const Request &request) {
    switch (request.call) {
        case ControlProtocol::Call::version:
            return "1/1.1.13";
        case ControlProtocol::Call::setPolicy:
            if (request.fan == 7) {
                return "no fan with id 7";
            }
            return std::nullopt;
        case ControlProtocol::Call::policies:
            return R"({"0":{"fixed":{"rpm":2500}},"1":{"fixed":{"rpm":"inf"}}})";
    }
    return std::nullopt;
}

class HelperClientTest : public ::testing::Test {
  protected:
    std::string socket() const { return dir.path() + "/helper.sock"; }
    std::unique_ptr<FakeDaemon> daemon(FakeDaemon::Mode mode) {
        return std::make_unique<FakeDaemon>(socket(), mode, answers);
    }
    // Moves time to just short of `limit` (the request still waits), then to it; returns
    // the request's failure.
    template <class T>
    std::string failureAt(std::chrono::milliseconds limit, std::future<T> future) {
        deadlines.advance(limit - 1ms);
        EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
        deadlines.advance(1ms);
        return failure(std::move(future), FanControlError::Kind::helperUnavailable);
    }

    test::TempDir dir;
    platform::FakeClock clock;
    platform::ManualQueue deadlines{clock};
};

TEST_F(HelperClientTest, AnswersArriveAndARefusedPolicyKeepsTheDaemonsWords) {
    auto fake = daemon(FakeDaemon::Mode::answer);
    HelperClient client(socket(), deadlines);
    auto version = client.version();
    auto accepted = client.setPolicy(FanPolicy::fixed(2500), 0);
    auto refused = client.setPolicy(FanPolicy::fixed(2500), 7);
    auto policies = client.policies();

    EXPECT_EQ(version.get(), "1/1.1.13");
    EXPECT_NO_THROW(accepted.get());
    EXPECT_EQ(failure(std::move(refused), FanControlError::Kind::helper), "no fan with id 7");
    PolicyMap expected{{0, FanPolicy::fixed(2500)}, {1, FanPolicy::fixed(INFINITY)}};
    EXPECT_EQ(policies.get(), expected);
    EXPECT_EQ(fake->connections(), 1);  // several requests in flight on one connection
}

TEST_F(HelperClientTest, EachWayOfNotReachingTheDaemonSaysWhatHappened) {
    struct Case {
        const char *name;
        std::function<std::unique_ptr<FakeDaemon>()> setUp;
        std::string reason;
    };
    platform::UniqueFd stale;
    const Case cases[] = {
        {"no socket", [] { return nullptr; },
         "no daemon is listening on " + socket() +
             " (is it installed and running? see: ostrel helper status)"},
        {"nobody listening",
         [&] {
             // A socket file left behind by a daemon that is gone.
             sockaddr_un address{};
             address.sun_family = AF_UNIX;
             std::strncpy(address.sun_path, socket().c_str(), sizeof address.sun_path - 1);
             stale.reset(::socket(AF_UNIX, SOCK_STREAM, 0));
             ::bind(stale.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
             return nullptr;
         },
         "connection refused on " + socket() +
             " (the daemon is not running; see: ostrel helper status)"},
        {"vetting refused", [&] { return daemon(FakeDaemon::Mode::closeWithoutAnswer); },
         "the daemon closed the connection without an answer (this program's signature was "
         "not accepted; see docs/security.md)"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ::unlink(socket().c_str());
        auto fake = c.setUp();
        HelperClient client(socket(), deadlines);
        EXPECT_EQ(failure(client.version(), FanControlError::Kind::helperUnavailable), c.reason);
        EXPECT_EQ(failure(client.policies(), FanControlError::Kind::helperUnavailable), c.reason);
    }
}

TEST_F(HelperClientTest, ASilentDaemonCostsEachRequestItsLimitAndTheConnection) {
    auto fake = daemon(FakeDaemon::Mode::silent);
    HelperClient client(socket(), deadlines);
    auto version = client.version();
    auto set = client.setPolicy(FanPolicy::fixed(2000), 0);
    fake->awaitRequests(2);
    EXPECT_EQ(failureAt(3s, std::move(version)), "no answer within 3 s");
    // The time-out dropped the connection, and with it the other request on it.
    EXPECT_EQ(failure(std::move(set), FanControlError::Kind::helperUnavailable),
              "the connection was closed after a request got no answer");

    auto again = client.setPolicy(FanPolicy::fixed(2000), 0);
    fake->awaitRequests(3);
    EXPECT_EQ(failureAt(10s, std::move(again)), "no answer within 10 s");
    EXPECT_EQ(fake->connections(), 2);
    EXPECT_EQ(client.inFlight(), 0u);
}

TEST_F(HelperClientTest, ARestartedDaemonIsReachedAgainWithoutReset) {
    auto fake = daemon(FakeDaemon::Mode::answer);
    HelperClient client(socket(), deadlines);
    EXPECT_EQ(client.version().get(), "1/1.1.13");
    fake.reset();
    fake = daemon(FakeDaemon::Mode::answer);
    EXPECT_EQ(client.version().get(), "1/1.1.13");
    EXPECT_EQ(fake->connections(), 1);

    client.reset();
    EXPECT_EQ(client.version().get(), "1/1.1.13");
    EXPECT_EQ(fake->connections(), 2);
}

TEST_F(HelperClientTest, AReplyRacingItsTimeOutFinishesTheRequestOnce) {
    auto fake = daemon(FakeDaemon::Mode::answer);
    int answered = 0, timedOut = 0;
    for (int round = 0; round < 50; ++round) {
        HelperClient client(socket(), deadlines);
        auto version = client.version();
        deadlines.advance(3s);  // on this thread, while the reply comes in on the client's
        try {
            version.get();
            ++answered;
        } catch (const FanControlError &e) {
            EXPECT_EQ(e.text(), "no answer within 3 s");
            ++timedOut;
        }
        EXPECT_EQ(client.inFlight(), 0u);
    }
    EXPECT_EQ(answered + timedOut, 50);
}

TEST_F(HelperClientTest, BlockingReturnsTheResultOrTimesOutInWholeSeconds) {
    auto fake = daemon(FakeDaemon::Mode::answer);
    {
        HelperClient client(socket(), deadlines);
        EXPECT_EQ(client.blocking(5, [](HelperClient &c) { return c.version(); }), "1/1.1.13");
        EXPECT_THROW(client.blocking(NAN, [](HelperClient &c) { return c.version(); }),
                     std::invalid_argument);
    }
    fake = daemon(FakeDaemon::Mode::silent);
    HelperClient client(socket(), deadlines);
    std::promise<void> armed;
    std::string message;
    std::thread caller([&] {
        try {
            client.blocking(2.9, [&](HelperClient &c) {
                auto future = c.version();
                armed.set_value();
                return future;
            });
        } catch (const FanControlError &e) {
            message = e.text();
        }
    });
    armed.get_future().get();  // the deadlines are armed; nothing else touches the queue
    deadlines.advance(2900ms);
    caller.join();
    EXPECT_EQ(message, "timed out after 2s");
}

TEST_F(HelperClientTest, DestroyingTheClientFinishesItsRequestsAndLeavesNothingRunning) {
    auto threads = [] {
        int n = 0;
        if (DIR *tasks = ::opendir("/proc/self/task")) {
            while (dirent *entry = ::readdir(tasks)) {
                n += entry->d_name[0] != '.';
            }
            ::closedir(tasks);
        }
        return n;
    };
    auto fake = daemon(FakeDaemon::Mode::silent);
    int before = threads();
    std::future<std::string> version;
    {
        HelperClient client(socket(), deadlines);
        version = client.version();
        client.policies();
        EXPECT_EQ(deadlines.activeTimers(), 2u);
    }
    EXPECT_EQ(failure(std::move(version), FanControlError::Kind::helperUnavailable),
              "the client was closed before the daemon answered");
    EXPECT_EQ(deadlines.activeTimers(), 0u);
    EXPECT_EQ(threads(), before);
}

TEST(ReplyReaderTest, CutsLinesAcrossChunksAndStopsAtGarbageOrAnOverlongLine) {
    ReplyReader reader;
    auto first = reader.feed(R"({"id":1,"reply":"a"})"
                             "\n"
                             R"({"id":2,)");
    ASSERT_EQ(first.replies.size(), 1u);
    EXPECT_EQ(reader
                  .feed(R"("reply":null})"
                        "\n")
                  .replies,
              (std::vector<ControlProtocol::Reply>{{2, std::nullopt}}));
    EXPECT_EQ(reader.feed("nonsense\n").error, "a line that is not a reply");

    ReplyReader flooded;
    std::string chunk(ControlProtocol::maxLineBytes / 2, 'x');
    EXPECT_FALSE(flooded.feed(chunk).error);
    EXPECT_FALSE(flooded.feed(chunk).error);
    EXPECT_TRUE(flooded.feed("x").error);
    EXPECT_LE(flooded.buffered(), ControlProtocol::maxLineBytes);
}

TEST(DecodePoliciesTest, RefusesKeysThatAreNotFanIndices) {
    EXPECT_EQ(decodePolicies("{}"), PolicyMap{});
    EXPECT_THROW(decodePolicies(R"({"01":{"auto":{}}})"), DecodingError);
    EXPECT_THROW(decodePolicies(R"({"0":{"fan":{}}})"), DecodingError);
}

}  // namespace
