// The shared Unix-socket server with a line-echo protocol, run on the test's own thread:
// the socket file's life, peer credentials, and every bound a peer could push against.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ostrel/platform/unique_fd.h"
#include "ostrel/platform/unix_server.h"
#include "support/io_thread.h"
#include "support/real_files.h"
#include "support/temp_dir.h"

namespace {

using namespace std::chrono_literals;
using ostrel::platform::FakeClock;
using ostrel::platform::UnixServer;
using ostrel::platform::UnixServerError;
using ostrel::platform::UnixServerLimits;
using ostrel::test::closedByPeer;
using ostrel::test::rawSocket;
using ostrel::test::sendAll;
using testing::AllOf;
using testing::HasSubstr;
using testing::Property;
using testing::Throws;

// One line in, the same line out; "big" answers 64 KiB, "bad" is not allowed.
class LineEcho final : public ostrel::platform::UnixServerHandler {
  public:
    std::optional<std::size_t> received(ostrel::platform::UnixConnection &connection,
                                        std::string_view buffered) override {
        peer = connection.peer();
        std::size_t consumed = 0;
        for (std::size_t end; (end = buffered.find('\n', consumed)) != std::string_view::npos;) {
            std::string_view line = buffered.substr(consumed, end - consumed);
            consumed = end + 1;
            if (line == "bad") {
                return std::nullopt;
            }
            connection.send(line == "big" ? std::string(64 * 1024, 'x') : std::string(line) + "\n");
            if (!connection.isOpen()) {
                return consumed;
            }
        }
        return consumed;
    }
    ostrel::platform::PeerCredentials peer;
};

// Real files, except that setting the mode can be made to fail.
class Files final : public ostrel::test::RealFiles {
  public:
    Result setMode(const std::string &p, unsigned mode) const override {
        return failMode ? Result::failure("set the mode of", p, EPERM)
                        : RealFiles::setMode(p, mode);
    }
    bool failMode = false;
};

class UnixServerTest : public testing::Test {
  protected:
    std::unique_ptr<UnixServer> listen(UnixServerLimits limits = {}) {
        return std::make_unique<UnixServer>(io, path, echo, files, clock, limits);
    }
    // Runs every handler that is ready; the kernel moves Unix-socket bytes at once, so
    // nothing is left in flight afterwards.
    void settle() {
        io.restart();
        while (io.poll() > 0) {
        }
    }
    // A client, closed with the test.
    int connect() {
        fds.emplace_back(rawSocket(path));
        settle();
        return fds.back().get();
    }
    std::string ask(int fd, const std::string &line) {
        sendAll(fd, line + "\n");
        settle();
        std::string reply;
        char c = 0;
        while (::recv(fd, &c, 1, MSG_DONTWAIT) == 1 && c != '\n') {
            reply += c;
        }
        return reply;
    }

    ostrel::test::TempDir dir;
    std::string path = dir.path() + "/run/server.sock";
    asio::io_context io;
    LineEcho echo;
    Files files;
    FakeClock clock;
    std::vector<ostrel::platform::UniqueFd> fds;
};

TEST_F(UnixServerTest, OwnsItsSocketFileFromDirectoryToRemoval) {
    auto server = listen({.socketMode = 0660});
    struct stat st {};
    ASSERT_EQ(::lstat(path.c_str(), &st), 0) << "the directory was made";
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFSOCK | 0660u);
    EXPECT_THAT([&] { listen(); }, Throws<UnixServerError>(Property(&UnixServerError::inUse, true)))
        << "took a live server's socket";
    server.reset();
    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "removed with the server";

    ::close(rawSocket(path, true));  // left behind by a server that died
    server = listen();
    int fd = connect();
    EXPECT_EQ(ask(fd, "hello"), "hello");
    EXPECT_EQ(std::tuple(echo.peer.known, echo.peer.pid, echo.peer.uid),
              std::tuple(true, ::getpid(), ::getuid()));
    sendAll(fd, "bad\n");
    settle();
    EXPECT_TRUE(closedByPeer(fd)) << "what the protocol does not allow closes the connection";
}

TEST_F(UnixServerTest, RefusesPathsItCannotOwn) {
    auto refused = [&](const char *why) {
        EXPECT_THAT([&] { listen(); }, Throws<UnixServerError>(AllOf(
                                           Property(&UnixServerError::inUse, false),
                                           Property(&UnixServerError::what, HasSubstr(why)))));
    };
    dir.put("run/server.sock", "not a socket");
    refused("exists and is not a socket");
    ::unlink(path.c_str());
    files.failMode = true;
    refused("cannot set the mode");
    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "no socket left behind";
    path = "/" + std::string(200, 'x');
    refused("must have 1 to");
}

TEST_F(UnixServerTest, InputIsHeldAsItArrivesWithinEachBound) {
    auto server = listen({.maxMessageBytes = 16, .maxBufferedBytes = 24});
    int a = connect();
    sendAll(a, "0123456789");  // no end of line yet
    settle();
    EXPECT_EQ(server->bufferedBytes(), 10u);
    EXPECT_EQ(ask(a, "abc"), "0123456789abc");
    EXPECT_EQ(server->bufferedBytes(), 0u) << "consumed input is let go";

    sendAll(a, "0123456789");
    int b = connect();
    sendAll(b, "0123456789abcdef");  // 26 held in all: over the total
    settle();
    EXPECT_TRUE(closedByPeer(b));
    sendAll(a, "0123456789");  // 20 on one connection: over its own bound
    settle();
    EXPECT_TRUE(closedByPeer(a));
    EXPECT_EQ(server->connections(), 0u);
    EXPECT_EQ(server->bufferedBytes(), 0u);
}

TEST_F(UnixServerTest, TheClockClosesIdleAndUnfinishedConnections) {
    auto server = listen({.idleTimeout = 60s, .messageTimeout = 5s});
    int quiet = connect();
    int halfway = connect();
    sendAll(halfway, "no end");
    settle();
    auto after = [&](std::chrono::seconds step) {
        clock.advance(step);
        server->closeExpired();
        settle();
        return server->connections();
    };
    EXPECT_EQ(after(5s), 1u) << "a message unfinished for 5 s goes; a quiet peer stays";
    EXPECT_TRUE(closedByPeer(halfway));
    EXPECT_EQ(after(54s), 1u);
    EXPECT_EQ(ask(quiet, "still here"), "still here");
    EXPECT_EQ(after(59s), 1u) << "talking restarted its minute";
    EXPECT_EQ(after(1s), 0u);
    EXPECT_TRUE(closedByPeer(quiet));
}

TEST_F(UnixServerTest, ANewcomerTakesThePlaceOfTheConnectionIdleTheLongestWhenFull) {
    auto server = listen({.maxConnections = 2, .evictIdleAfter = 1s});
    int idle = connect();
    clock.advance(5s);
    int busy = connect();
    sendAll(busy, "half a line");
    clock.advance(5s);
    settle();
    int newcomer = connect();
    EXPECT_TRUE(closedByPeer(idle));
    EXPECT_EQ(ask(newcomer, "in"), "in");
    int refused = connect();  // one busy, one fresh: nobody makes room
    EXPECT_TRUE(closedByPeer(refused));
    EXPECT_EQ(ask(busy, ""), "half a line");
}

TEST_F(UnixServerTest, APeerThatDoesNotReadIsCutOff) {
    auto server = listen({.maxQueuedReplyBytes = 256 * 1024});
    int fd = connect();
    for (int i = 0; i < 32 && server->connections() == 1; ++i) {
        sendAll(fd, "big\n");  // 2 MiB of answers in all, none of them read
        settle();
    }
    EXPECT_EQ(server->connections(), 0u);
}

}  // namespace
