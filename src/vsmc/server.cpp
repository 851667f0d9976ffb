#include "ostrel/vsmc/server.h"

#include <asio.hpp>
#include <cstring>
#include <optional>

#include "csmc/vsmc_protocol.h"
#include "ostrel/vsmc/virtual_mac.h"

namespace ostrel::vsmc {

namespace {

namespace wire = csmc::vsmcwire;
constexpr double kLongestTick = 5;  // seconds of real time one catch-up may account for

// The reply frame to one request frame; nothing when the request is unusable and the
// connection must close.
std::optional<std::string> answer(VirtualMac &mac, const wire::Split &frame,
                                  const platform::PeerCredentials &peer) {
    std::string reply;
    if (frame.header.kind == wire::kExchange) {
        smc_param in{};
        smc_param out{};
        std::memcpy(&in, frame.payload.data(), sizeof in);
        Caller caller{peer.known && peer.uid == 0};
        std::uint32_t kern = mac.machine().exchange(in, out, caller);
        auto header = wire::encodeHeader(wire::kExchangeReply, wire::kExchangeReplySize);
        reply.assign(header.begin(), header.end());
        for (int shift = 0; shift < 32; shift += 8) {
            reply.push_back(static_cast<char>(kern >> shift));
        }
        reply.append(reinterpret_cast<const char *>(&out), sizeof out);
        return reply;
    }
    Json request = Json::parse(frame.payload, nullptr, false);
    if (request.is_discarded() || !request.is_object()) {
        return std::nullopt;
    }
    std::string text = mac.call(request).dump(-1, ' ', false, Json::error_handler_t::replace);
    if (text.size() > wire::kMaxCallSize) {
        text = R"({"ok":false,"error":"the reply is too large"})";
    }
    auto header = wire::encodeHeader(wire::kCallReply, static_cast<std::uint32_t>(text.size()));
    reply.assign(header.begin(), header.end());
    return reply + text;
}

}  // namespace

std::optional<std::size_t> answerFrames(VirtualMac &mac, std::string_view buffered,
                                        const platform::PeerCredentials &peer,
                                        const std::function<bool(std::string)> &reply) {
    std::size_t consumed = 0;
    for (;;) {
        wire::Split frame = wire::splitFrame(buffered.substr(consumed), true);
        if (frame.state == wire::Split::bad) {
            return std::nullopt;
        }
        if (frame.state == wire::Split::incomplete) {
            return consumed;
        }
        std::optional<std::string> answered = answer(mac, frame, peer);
        if (!answered) {
            return std::nullopt;
        }
        consumed += frame.size;
        if (!reply(std::move(*answered))) {
            return consumed;
        }
    }
}

struct Server::Impl : platform::UnixServerHandler, std::enable_shared_from_this<Server::Impl> {
    Impl(asio::io_context &io, VirtualMac &mac, const platform::Clock &clock,
         std::chrono::milliseconds tick)
        : mac(mac), clock(clock), tick(tick), timer(io), last(clock.monotonic()) {}

    std::optional<std::size_t> received(platform::UnixConnection &connection,
                                        std::string_view buffered) override {
        catchUp();  // time until now passes at the speed it had, before a call changes it
        auto consumed = answerFrames(mac, buffered, connection.peer(), [&](std::string reply) {
            connection.send(std::move(reply));
            // Cut off for not reading its replies: `buffered` is gone with the connection.
            return connection.isOpen();
        });
        armTick();
        return consumed;
    }

    void catchUp() {
        platform::Clock::Monotonic now = clock.monotonic();
        double real = std::chrono::duration<double>(now - last).count();
        last = now;
        mac.elapse(std::min(real, kLongestTick));
    }

    // Keeps the tick timer armed while time moves on the machine, and only then.
    void armTick() {
        if (stopped || mac.speed() <= 0) {
            if (ticking) {
                ticking = false;
                timer.cancel();
            }
            return;
        }
        if (ticking) {
            return;
        }
        ticking = true;
        std::uint64_t armed = ++generation;
        timer.expires_after(tick);
        timer.async_wait([self = shared_from_this(), armed](asio::error_code ec) {
            if (armed != self->generation) {
                return;  // a wait cancelled and since replaced
            }
            self->ticking = false;
            if (!ec && !self->stopped) {
                self->catchUp();
                self->armTick();
            }
        });
    }

    void stop() {
        stopped = true;
        timer.cancel();
        if (listener) {
            listener->stop();
        }
    }

    VirtualMac &mac;
    const platform::Clock &clock;
    std::chrono::milliseconds tick;
    asio::steady_timer timer;
    platform::Clock::Monotonic last;
    bool ticking = false;
    std::uint64_t generation = 0;
    bool stopped = false;
    std::unique_ptr<platform::UnixServer> listener;
};

platform::UnixServerLimits Server::defaultLimits() {
    platform::UnixServerLimits limits;
    limits.maxMessageBytes = wire::kMaxFrameSize;
    limits.maxBufferedBytes = 16 * wire::kMaxFrameSize;
    limits.maxQueuedReplyBytes = 2 * wire::kMaxFrameSize;
    limits.socketMode = 0666;
    return limits;
}

Server::Server(asio::io_context &io, VirtualMac &mac, std::string socketPath,
               const platform::Files &files, const platform::Clock &clock,
               std::chrono::milliseconds tick, platform::UnixServerLimits limits)
    : impl_(std::make_shared<Impl>(io, mac, clock, tick)) {
    impl_->listener = std::make_unique<platform::UnixServer>(io, std::move(socketPath), *impl_,
                                                             files, clock, limits);
    impl_->armTick();
}

Server::~Server() {
    impl_->stop();
}

void Server::stop() {
    impl_->stop();
}

void Server::catchUp() {
    impl_->catchUp();
}

bool Server::clockRunning() const {
    return impl_->ticking;
}

const std::string &Server::socketPath() const {
    return impl_->listener->path();
}

platform::UnixServer &Server::listener() {
    return *impl_->listener;
}

}  // namespace ostrel::vsmc
