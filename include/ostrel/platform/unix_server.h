// A Unix stream socket server: the listening, accepting and connection keeping that the
// virtual Mac's server and the daemon's control service share. Framing is the user's (the
// virtual Mac's binary frames, the daemon's JSON lines); everything a peer could make the
// process hold is bounded here:
//
// - bytes: each connection's unconsumed input grows only as bytes arrive (never from a
//   length the peer claims), up to maxMessageBytes, and all connections together hold at
//   most maxBufferedBytes; a connection that would go past either is closed;
// - replies: at most maxQueuedReplyBytes wait to be written to a connection; a peer that
//   does not read is cut off;
// - connections: at most maxConnections; one more takes the place of the connection idle
//   the longest (idle for at least evictIdleAfter, nothing half-read or unwritten), so that
//   connections held open and silent cannot lock everyone else out; when there is none, it
//   is accepted and closed at once;
// - time: a connection that moves no byte for idleTimeout, or leaves a message unfinished
//   for messageTimeout, is closed.
//
// Timeouts are decided by the injected monotonic clock; Asio's timer only wakes the sweep
// that asks it, and sleeps while there is no connection. File-system effects (creating
// the socket's directory, removing a stale socket file, setting the mode) go through the
// injected Files.
//
// Everything runs on the thread that runs the io_context: the handler is called there,
// and every member function must be called there too (post to it from elsewhere).
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "ostrel/platform/clock.h"
#include "ostrel/platform/files.h"

namespace asio {
class io_context;
}

namespace ostrel::platform {

// Who is at the other end, from SO_PEERCRED when the connection was accepted.
struct PeerCredentials {
    bool known = false;  // false when the kernel would not tell; the fields are then 0
    int pid = 0;
    unsigned uid = 0;
    unsigned gid = 0;
};

struct UnixServerLimits {
    std::size_t maxConnections = 64;
    std::size_t maxMessageBytes = 64 * 1024;         // unconsumed input per connection
    std::size_t maxBufferedBytes = 4 * 1024 * 1024;  // unconsumed input of all connections
    std::size_t maxQueuedReplyBytes = 256 * 1024;    // unwritten output per connection
    std::chrono::milliseconds idleTimeout{60'000};
    std::chrono::milliseconds messageTimeout{10'000};
    std::chrono::milliseconds evictIdleAfter{1000};
    std::chrono::milliseconds acceptRetry{100};  // pause after a failed accept (EMFILE, ...)
    unsigned socketMode = 0600;
};

// A connection as the handler sees it. Valid from the handler's accepted() until its
// closed() for that connection.
class UnixConnection {
  public:
    virtual ~UnixConnection() = default;
    virtual const PeerCredentials &peer() const = 0;
    // The connected socket, for what the handler asks the kernel about its peer (a pidfd);
    // it must not read, write or close it.
    virtual int nativeHandle() const = 0;
    // False once the connection is closed (by close(), a full reply queue, or the peer).
    virtual bool isOpen() const = 0;
    // Queues bytes to write. When that would put more than maxQueuedReplyBytes in the
    // queue, the connection is closed instead.
    virtual void send(std::string bytes) = 0;
    // Closes the connection; what was queued is dropped.
    virtual void close() = 0;
};

class UnixServerHandler {
  public:
    virtual ~UnixServerHandler() = default;
    // Everything `connection` sent that was not consumed yet, after more bytes arrived.
    // Returns how many bytes from the front it consumed (whole messages; 0 waits for more),
    // or nothing when the bytes are not what the protocol allows: the connection is then
    // closed without an answer. May send and close.
    virtual std::optional<std::size_t> received(UnixConnection &connection,
                                                std::string_view buffered) = 0;
    // A connection was accepted, before anything is read from it. May close it.
    virtual void accepted(UnixConnection &) {}
    // An accepted connection was closed, by either side or by stop(); the last call for it.
    virtual void closed(UnixConnection &) {}
};

// Listening failed. what() is a message for the user; inUse() tells a live server on the
// path from a path that cannot be used.
class UnixServerError : public std::runtime_error {
  public:
    UnixServerError(const std::string &message, bool inUse)
        : std::runtime_error(message), inUse_(inUse) {}
    bool inUse() const { return inUse_; }

  private:
    bool inUse_;
};

class UnixServer {
  public:
    // Listens on `path`: creates its directory, replaces a socket file nobody answers on,
    // refuses a live one (UnixServerError, inUse) and anything that is not a socket, and
    // sets the socket's mode. Throws UnixServerError when the path cannot be used. `io`,
    // `handler`, `files` and `clock` must outlive the server.
    UnixServer(asio::io_context &io, std::string path, UnixServerHandler &handler,
               const Files &files, const Clock &clock, UnixServerLimits limits = {});
    ~UnixServer();  // stops, and removes the socket file
    UnixServer(const UnixServer &) = delete;
    UnixServer &operator=(const UnixServer &) = delete;

    // Stops accepting and closes every connection; once their handlers have run,
    // io.run() returns unless something else keeps it busy.
    void stop();

    // Closes every connection that has been idle, or inside one message, for too long by
    // the clock. The sweep timer calls it; tests call it after moving a fake clock.
    void closeExpired();

    const std::string &path() const;
    const UnixServerLimits &limits() const;
    std::size_t connections() const;
    // Unconsumed input held by all connections, in bytes.
    std::size_t bufferedBytes() const;

  private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace ostrel::platform
