#include "ostrel/platform/unix_server.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <asio.hpp>
#include <deque>
#include <map>
#include <optional>

namespace ostrel::platform {

namespace {

using Protocol = asio::local::stream_protocol;

// The most one read takes in, so that a fast peer cannot starve the others.
constexpr std::size_t kReadChunk = 64 * 1024;
// An emptied input buffer keeps this much capacity; more is given back.
constexpr std::size_t kKeptCapacity = 4 * 1024;

PeerCredentials credentialsOf(Protocol::socket &socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return {};
    }
    return {true, peer.pid, peer.uid, peer.gid};
}

}  // namespace

struct UnixServer::Impl : std::enable_shared_from_this<UnixServer::Impl> {
    class Connection;

    Impl(asio::io_context &io, std::string path, UnixServerHandler &handler, const Files &files,
         const Clock &clock, UnixServerLimits limits)
        : io(io),
          path(std::move(path)),
          handler(handler),
          files(files),
          clock(clock),
          limits(limits),
          acceptor(io),
          retry(io),
          sweep(io) {}

    void listen();
    void accept();
    void armSweep();
    void closeExpired();
    // Makes room for a newcomer by closing the connection idle the longest, if one has been
    // idle for evictIdleAfter; false when every connection is busy or fresh.
    bool evictIdlest();
    void stop();
    void forget(Connection *connection);

    asio::io_context &io;
    std::string path;
    UnixServerHandler &handler;
    const Files &files;
    const Clock &clock;
    UnixServerLimits limits;
    Protocol::acceptor acceptor;
    asio::steady_timer retry;
    asio::steady_timer sweep;
    bool sweeping = false;
    std::map<Connection *, std::shared_ptr<Connection>> connections;
    std::size_t buffered = 0;
    bool bound = false;
    bool stopped = false;
};

class UnixServer::Impl::Connection final : public UnixConnection,
                                           public std::enable_shared_from_this<Connection> {
  public:
    Connection(std::shared_ptr<Impl> server, Protocol::socket socket)
        : server_(std::move(server)),
          socket_(std::move(socket)),
          peer_(credentialsOf(socket_)),
          lastActivity_(server_->clock.monotonic()) {}

    const PeerCredentials &peer() const override { return peer_; }
    int nativeHandle() const override {
        return const_cast<Protocol::socket &>(socket_).native_handle();  // only reads it
    }
    bool isOpen() const override { return !closed_; }

    void send(std::string bytes) override {
        if (closed_) {
            return;
        }
        if (queuedBytes_ + bytes.size() > server_->limits.maxQueuedReplyBytes) {
            close();  // a peer that does not read its replies is cut off
            return;
        }
        queuedBytes_ += bytes.size();
        queue_.push_back(std::move(bytes));
        if (queue_.size() == 1) {
            writeNext();
        }
    }

    void close() override {
        if (closed_) {
            return;
        }
        closed_ = true;
        asio::error_code ignored;
        socket_.close(ignored);
        release(input_.size());
        input_ = std::string();
        queue_.clear();
        queuedBytes_ = 0;
        server_->handler.closed(*this);
        server_->forget(this);
    }

    void start() { waitForInput(); }

    // Whether the clock says this connection has had its time.
    bool expired(Clock::Monotonic now) const {
        const UnixServerLimits &limits = server_->limits;
        return now - lastActivity_ >= limits.idleTimeout ||
               (!input_.empty() && now - messageStart_ >= limits.messageTimeout);
    }

    // Since when it has moved no byte, with nothing half-read or unwritten; nothing when
    // it is busy.
    std::optional<Clock::Monotonic> idleSince() const {
        if (closed_ || !input_.empty() || !queue_.empty()) {
            return std::nullopt;
        }
        return lastActivity_;
    }

  private:
    void waitForInput() {
        socket_.async_wait(Protocol::socket::wait_read,
                           [self = shared_from_this()](asio::error_code ec) {
                               if (!ec && !self->closed_) {
                                   self->readAvailable();
                               } else {
                                   self->close();
                               }
                           });
    }

    // Takes in what has arrived, within the per-connection and total bounds.
    void readAvailable() {
        const UnixServerLimits &limits = server_->limits;
        asio::error_code ec;
        std::size_t available = socket_.available(ec);
        std::size_t room = limits.maxMessageBytes - input_.size();
        std::size_t want = std::min({std::max<std::size_t>(available, 1), room, kReadChunk});
        if (ec || want == 0 || server_->buffered + want > limits.maxBufferedBytes) {
            return close();
        }
        std::size_t before = input_.size();
        input_.resize(before + want);
        std::size_t got = socket_.read_some(asio::buffer(input_.data() + before, want), ec);
        input_.resize(before + got);
        if (ec || got == 0) {
            return close();  // end of stream or a reset: the peer is gone
        }
        server_->buffered += got;
        Clock::Monotonic now = server_->clock.monotonic();
        lastActivity_ = now;
        if (before == 0) {
            messageStart_ = now;
        }
        std::optional<std::size_t> consumed = server_->handler.received(*this, input_);
        if (closed_) {
            return;
        }
        if (!consumed || *consumed > input_.size()) {
            return close();
        }
        if (*consumed > 0) {
            input_.erase(0, *consumed);
            release(*consumed);
            messageStart_ = now;  // what is left is the start of the next message
            if (input_.empty() && input_.capacity() > kKeptCapacity) {
                input_ = std::string();
            }
        }
        waitForInput();
    }

    void writeNext() {
        asio::async_write(socket_, asio::buffer(queue_.front()),
                          [self = shared_from_this()](asio::error_code ec, std::size_t) {
                              if (ec || self->closed_) {
                                  return self->close();
                              }
                              self->lastActivity_ = self->server_->clock.monotonic();
                              self->queuedBytes_ -= self->queue_.front().size();
                              self->queue_.pop_front();
                              if (!self->queue_.empty()) {
                                  self->writeNext();
                              }
                          });
    }

    void release(std::size_t bytes) { server_->buffered -= std::min(bytes, server_->buffered); }

    std::shared_ptr<Impl> server_;
    Protocol::socket socket_;
    PeerCredentials peer_;
    std::string input_;
    std::deque<std::string> queue_;
    std::size_t queuedBytes_ = 0;
    Clock::Monotonic lastActivity_;
    Clock::Monotonic messageStart_{};
    bool closed_ = false;
};

void UnixServer::Impl::listen() {
    if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path)) {
        throw UnixServerError("socket path '" + path + "' must have 1 to " +
                                  std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes",
                              false);
    }
    if (FileResult made = files.createDirectories(parentDirectory(path), 0755); !made.ok()) {
        throw UnixServerError(made.message(), false);
    }
    switch (files.kind(path)) {
        case FileKind::none:
            break;
        case FileKind::socket: {
            Protocol::socket probe(io);
            asio::error_code ec;
            probe.connect(Protocol::endpoint(path), ec);
            if (!ec) {
                throw UnixServerError("a server is already listening on " + path, true);
            }
            // Nobody answers: a socket file left behind by a server that died.
            if (!files.remove(path)) {
                throw UnixServerError("cannot remove the stale socket " + path, false);
            }
            break;
        }
        default:
            throw UnixServerError(path + " exists and is not a socket", false);
    }
    try {
        acceptor.open(Protocol());
        acceptor.bind(Protocol::endpoint(path));
        bound = true;
        acceptor.listen();
    } catch (const std::system_error &e) {
        throw UnixServerError("cannot listen on " + path + ": " + e.code().message(), false);
    }
    if (FileResult moded = files.setMode(path, limits.socketMode); !moded.ok()) {
        throw UnixServerError(moded.message(), false);
    }
}

void UnixServer::Impl::accept() {
    acceptor.async_accept(
        [self = shared_from_this()](asio::error_code ec, Protocol::socket socket) {
            if (self->stopped || ec == asio::error::operation_aborted) {
                return;
            }
            if (ec) {
                // Out of descriptors or memory: try again shortly instead of spinning.
                self->retry.expires_after(self->limits.acceptRetry);
                self->retry.async_wait([self](asio::error_code waited) {
                    if (!waited && !self->stopped) {
                        self->accept();
                    }
                });
                return;
            }
            if (self->connections.size() >= self->limits.maxConnections && !self->evictIdlest()) {
                asio::error_code ignored;
                socket.close(ignored);  // full: the peer sees the connection end at once
            } else {
                auto connection = std::make_shared<Connection>(self, std::move(socket));
                self->connections.emplace(connection.get(), connection);
                self->handler.accepted(*connection);
                if (connection->isOpen()) {
                    connection->start();
                    self->armSweep();
                }
            }
            self->accept();
        });
}

bool UnixServer::Impl::evictIdlest() {
    Clock::Monotonic now = clock.monotonic();
    std::shared_ptr<Connection> idlest;
    std::optional<Clock::Monotonic> since;
    for (const auto &[raw, connection] : connections) {
        std::optional<Clock::Monotonic> idle = connection->idleSince();
        if (idle && now - *idle >= limits.evictIdleAfter && (!since || *idle < *since)) {
            idlest = connection;
            since = idle;
        }
    }
    if (idlest) {
        idlest->close();
    }
    return idlest != nullptr;
}

void UnixServer::Impl::armSweep() {
    if (sweeping || connections.empty() || stopped) {
        return;  // nothing to watch: the timer sleeps
    }
    sweeping = true;
    auto period = std::max(std::min(limits.idleTimeout, limits.messageTimeout) / 4,
                           std::chrono::milliseconds(10));
    sweep.expires_after(period);
    sweep.async_wait([self = shared_from_this()](asio::error_code ec) {
        self->sweeping = false;
        if (!ec && !self->stopped) {
            self->closeExpired();
            self->armSweep();
        }
    });
}

void UnixServer::Impl::closeExpired() {
    Clock::Monotonic now = clock.monotonic();
    std::vector<std::shared_ptr<Connection>> expired;
    for (const auto &[raw, connection] : connections) {
        if (connection->expired(now)) {
            expired.push_back(connection);
        }
    }
    for (const auto &connection : expired) {
        connection->close();
    }
}

void UnixServer::Impl::forget(Connection *connection) {
    connections.erase(connection);
}

void UnixServer::Impl::stop() {
    if (stopped) {
        return;
    }
    stopped = true;
    asio::error_code ignored;
    acceptor.close(ignored);
    retry.cancel();
    sweep.cancel();
    auto open = std::move(connections);
    connections.clear();
    for (const auto &[raw, connection] : open) {
        connection->close();
    }
}

UnixServer::UnixServer(asio::io_context &io, std::string path, UnixServerHandler &handler,
                       const Files &files, const Clock &clock, UnixServerLimits limits)
    : impl_(std::make_shared<Impl>(io, std::move(path), handler, files, clock, limits)) {
    try {
        impl_->listen();
    } catch (...) {
        if (impl_->bound) {
            impl_->files.remove(impl_->path);
        }
        throw;
    }
    impl_->accept();
}

UnixServer::~UnixServer() {
    impl_->stop();
    if (impl_->bound) {
        impl_->files.remove(impl_->path);
    }
}

void UnixServer::stop() {
    impl_->stop();
}

void UnixServer::closeExpired() {
    impl_->closeExpired();
}

const std::string &UnixServer::path() const {
    return impl_->path;
}

const UnixServerLimits &UnixServer::limits() const {
    return impl_->limits;
}

std::size_t UnixServer::connections() const {
    return impl_->connections.size();
}

std::size_t UnixServer::bufferedBytes() const {
    return impl_->buffered;
}

}  // namespace ostrel::platform
