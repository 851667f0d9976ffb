// The control service: the daemon's end of its socket (docs/protocol.md). It serves the
// version itself and hands setPolicy and policies to the controller's queue, in the order
// they arrive, writing each reply when the controller has answered.
//
// Every message is vetted: the peer is identified once per connection (SO_PEERCRED and a
// pidfd) and checked against the client requirement before each line is served. A peer that
// fails, a line that is not a request, an unknown call or a line over 64 KiB closes the
// connection without an answer, before anything changes. What a peer can make the daemon
// hold is bounded (ControlServiceLimits, docs/operations.md). Requests wait in the
// service's own queue, in arrival order, and only a few at a time are handed to the
// controller's queue: a control tick never waits behind more than those few, however many
// clients are asking.
//
// Threads: the service runs on a thread of its own ("helper.service"); requests run on the
// controller's queue; construction, start() and stop() belong to the main thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "controller.h"
#include "log.h"
#include "ostrel/control_protocol.h"
#include "ostrel/peer_identity.h"
#include "ostrel/platform/serial_queue.h"
#include "ostrel/platform/unix_server.h"

namespace ostrel::helper {

struct ControlServiceLimits {
    std::size_t maxConnections = 128;
    // Per user other than root (who could stop the daemon anyway), so that one local user
    // cannot take every slot.
    std::size_t maxConnectionsPerUser = 32;
    std::size_t maxPendingPerConnection = 16;  // requests sent and not yet answered
    std::size_t maxWaiting = 512;              // requests waiting over all connections
    std::size_t maxWaitingBytes = 4 << 20;     // and their policy texts
    std::size_t maxInFlight = 4;               // requests on the controller's queue at once
    std::size_t maxQueuedReplyBytes = 256 * 1024;
    std::chrono::milliseconds idleTimeout{30'000};
    std::chrono::milliseconds lineTimeout{10'000};  // to finish a line once begun
    // Refused peers are logged, at most this many lines a minute (then one line saying
    // how many more there were), so that no peer can grow the log without bound.
    std::size_t refusalsLoggedPerMinute = 10;
};

// What the service takes from the daemon. The references must outlive it.
struct ControlServiceServices {
    Controller &controller;
    PeerVetting &vetting;
    const platform::ProcessAccess &processAccess;
    const platform::Files &files;  // the socket file
    const platform::Clock &clock;
    LogSink log;
    std::string socketPath;  // HelperConstants::socketPath
};

class ControlService final : private platform::UnixServerHandler {
  public:
    // Listens on the socket (mode 0666: the vetting decides who is served), replacing a
    // stale socket file; connections wait in the backlog until start(). Throws
    // platform::UnixServerError, inUse() when another daemon answers on the path.
    ControlService(ControlServiceServices services, ControlServiceLimits limits = {});
    // Stops, waits for the controller's queue to finish what it is running, and removes
    // the socket file. Not on the controller's queue.
    ~ControlService() override;
    ControlService(const ControlService &) = delete;
    ControlService &operator=(const ControlService &) = delete;

    // Starts serving on the service's thread. Once.
    void start();
    // Stops accepting, closes every connection and ends the thread. Requests still on the
    // controller's queue are dropped when they come up: after stop() returns, the service
    // changes nothing. Not from the service's thread or the controller's queue.
    void stop();

    const ControlServiceLimits &limits() const { return limits_; }

  private:
    struct Connection;

    std::optional<std::size_t> received(platform::UnixConnection &connection,
                                        std::string_view buffered) override;
    void accepted(platform::UnixConnection &connection) override;
    void closed(platform::UnixConnection &connection) override;

    // Serves one line; false when the connection must close.
    bool serve(const std::shared_ptr<Connection> &connection, std::string_view line);
    // Hands waiting requests to the controller's queue while fewer than maxInFlight are
    // there.
    void dispatch();
    void refuse(const std::string &reason);
    // On the controller's queue: the reply to a request.
    std::optional<std::string> answer(const ControlProtocol::Request &request, bool &tick);

    ControlServiceServices services_;
    ControlServiceLimits limits_;
    platform::RunLoop loop_;
    std::unique_ptr<platform::UnixServer> server_;
    std::thread thread_;
    std::map<platform::UnixConnection *, std::shared_ptr<Connection>> connections_;
    std::map<unsigned, std::size_t> perUser_;
    struct Waiting {
        std::weak_ptr<Connection> connection;
        ControlProtocol::Request request;
    };
    std::deque<Waiting> waiting_;
    std::size_t waitingBytes_ = 0;
    std::size_t inFlight_ = 0;
    // Shared with requests on the controller's queue, which may outlive the service.
    std::shared_ptr<std::atomic<bool>> stopped_ = std::make_shared<std::atomic<bool>>(false);
    // Refusal logging: the start of the current minute and the lines logged in it.
    platform::Clock::Monotonic refusalWindow_{};
    std::size_t refusalsLogged_ = 0, refusalsSuppressed_ = 0;
};

}  // namespace ostrel::helper
