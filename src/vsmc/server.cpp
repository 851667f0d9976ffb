#include "ostrel/vsmc/server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <asio.hpp>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "ostrel/vsmc/protocol.h"
#include "ostrel/vsmc/virtual_mac.h"

namespace ostrel::vsmc {

namespace {

using Protocol = asio::local::stream_protocol;
constexpr double kLongestTick = 5;  // seconds of real time one tick may account for

// One client connection: reads a request, answers it, reads the next.
class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(Protocol::socket socket, VirtualMac &mac) : socket_(std::move(socket)), mac_(mac) {
        ucred peer{};
        socklen_t length = sizeof peer;
        caller_.privileged =
            getsockopt(socket_.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
            peer.uid == 0;
    }

    void start() { readHeader(); }

    void close() {
        asio::error_code ignored;
        socket_.close(ignored);
    }

  private:
    void readHeader() {
        auto self = shared_from_this();
        asio::async_read(socket_, asio::buffer(header_),
                         [this, self](asio::error_code ec, std::size_t) {
                             std::optional<protocol::Header> header;
                             if (ec || !(header = protocol::decodeHeader(header_, true))) {
                                 return close();
                             }
                             kind_ = header->kind;
                             payload_.resize(header->length);
                             readPayload();
                         });
    }

    void readPayload() {
        auto self = shared_from_this();
        asio::async_read(socket_, asio::buffer(payload_),
                         [this, self](asio::error_code ec, std::size_t) {
                             if (ec || !answer()) {
                                 return close();
                             }
                             asio::async_write(socket_, asio::buffer(reply_),
                                               [this, self](asio::error_code ec, std::size_t) {
                                                   if (ec) {
                                                       return close();
                                                   }
                                                   readHeader();
                                               });
                         });
    }

    // Fills reply_; false when the request is unusable and the connection must close.
    bool answer() {
        if (kind_ == protocol::kExchange) {
            smc_param in{};
            smc_param out{};
            std::memcpy(&in, payload_.data(), sizeof in);
            std::uint32_t kern = mac_.machine().exchange(in, out, caller_);
            auto header =
                protocol::encodeHeader(protocol::kExchangeReply, protocol::kExchangeReplySize);
            reply_.assign(header.begin(), header.end());
            for (int shift = 0; shift < 32; shift += 8) {
                reply_.push_back(static_cast<std::uint8_t>(kern >> shift));
            }
            const auto *bytes = reinterpret_cast<const std::uint8_t *>(&out);
            reply_.insert(reply_.end(), bytes, bytes + sizeof out);
            return true;
        }
        Json request = Json::parse(payload_.begin(), payload_.end(), nullptr, false);
        if (request.is_discarded() || !request.is_object()) {
            return false;
        }
        std::string text = mac_.call(request).dump(-1, ' ', false, Json::error_handler_t::replace);
        if (text.size() > protocol::kMaxCallSize) {
            text = R"({"ok":false,"error":"the reply is too large"})";
        }
        auto header =
            protocol::encodeHeader(protocol::kCallReply, static_cast<std::uint32_t>(text.size()));
        reply_.assign(header.begin(), header.end());
        reply_.insert(reply_.end(), text.begin(), text.end());
        return true;
    }

    Protocol::socket socket_;
    VirtualMac &mac_;
    Caller caller_;
    std::array<std::uint8_t, protocol::kHeaderSize> header_{};
    protocol::Kind kind_ = protocol::kExchange;
    std::vector<std::uint8_t> payload_;
    std::vector<std::uint8_t> reply_;
};

// True when something accepts connections at `path`.
bool answers(asio::io_context &io, const std::string &path) {
    Protocol::socket probe(io);
    asio::error_code ec;
    probe.connect(Protocol::endpoint(path), ec);
    return !ec;
}

}  // namespace

struct Server::Impl : std::enable_shared_from_this<Server::Impl> {
    Impl(asio::io_context &io, VirtualMac &mac, std::string path, std::chrono::milliseconds tick)
        : io(io), mac(mac), path(std::move(path)), tick(tick), acceptor(io), timer(io), retry(io) {}

    void listen() {
        if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path)) {
            throw std::runtime_error("socket path '" + path + "' must have 1 to " +
                                     std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
        }
        std::error_code fsError;
        std::filesystem::path parent = std::filesystem::path(path).parent_path();
        if (!parent.empty()) {
            std::filesystem::create_directories(parent, fsError);
        }
        if (std::filesystem::exists(std::filesystem::symlink_status(path, fsError))) {
            if (answers(io, path)) {
                throw std::runtime_error("a virtual Mac is already serving " + path);
            }
            std::filesystem::remove(path, fsError);
        }
        try {
            acceptor.open(Protocol());
            acceptor.bind(Protocol::endpoint(path));
            bound = true;
            // Any local user may connect; the machine itself refuses their writes.
            ::chmod(path.c_str(), 0666);
            acceptor.listen();
        } catch (const std::system_error &e) {
            throw std::runtime_error("cannot listen on " + path + ": " + e.code().message());
        }
    }

    void accept() {
        acceptor.async_accept(
            [self = shared_from_this()](asio::error_code ec, Protocol::socket socket) {
                if (self->stopped || ec == asio::error::operation_aborted) {
                    return;
                }
                if (ec) {
                    // Out of descriptors or memory: try again shortly instead of spinning.
                    self->retry.expires_after(std::chrono::milliseconds(100));
                    self->retry.async_wait([self](asio::error_code waited) {
                        if (!waited && !self->stopped) {
                            self->accept();
                        }
                    });
                    return;
                }
                auto session = std::make_shared<Session>(std::move(socket), self->mac);
                std::erase_if(self->sessions, [](const auto &weak) { return weak.expired(); });
                self->sessions.push_back(session);
                session->start();
                self->accept();
            });
    }

    void scheduleTick() {
        timer.expires_after(tick);
        timer.async_wait([self = shared_from_this()](asio::error_code ec) {
            if (ec || self->stopped) {
                return;
            }
            auto now = std::chrono::steady_clock::now();
            double real = std::chrono::duration<double>(now - self->last).count();
            self->last = now;
            self->mac.elapse(std::min(real, kLongestTick));
            self->scheduleTick();
        });
    }

    void stop() {
        if (stopped) {
            return;
        }
        stopped = true;
        asio::error_code ignored;
        acceptor.close(ignored);
        timer.cancel();
        retry.cancel();
        for (const auto &weak : sessions) {
            if (auto session = weak.lock()) {
                session->close();
            }
        }
        sessions.clear();
    }

    asio::io_context &io;
    VirtualMac &mac;
    std::string path;
    std::chrono::milliseconds tick;
    Protocol::acceptor acceptor;
    asio::steady_timer timer;
    asio::steady_timer retry;
    std::vector<std::weak_ptr<Session>> sessions;
    std::chrono::steady_clock::time_point last = std::chrono::steady_clock::now();
    bool stopped = false;
    bool bound = false;
};

Server::Server(asio::io_context &io, VirtualMac &mac, std::string socketPath,
               std::chrono::milliseconds tick)
    : impl_(std::make_shared<Impl>(io, mac, std::move(socketPath), tick)) {
    impl_->listen();
    impl_->accept();
    impl_->scheduleTick();
}

Server::~Server() {
    impl_->stop();
    if (impl_->bound) {
        std::error_code ignored;
        std::filesystem::remove(impl_->path, ignored);
    }
}

void Server::stop() {
    impl_->stop();
}

const std::string &Server::socketPath() const {
    return impl_->path;
}

}  // namespace ostrel::vsmc
