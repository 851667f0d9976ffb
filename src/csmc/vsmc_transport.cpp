#include "csmc/vsmc_transport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "csmc/vsmc_protocol.h"

namespace csmc {

namespace {

namespace wire = vsmcwire;
using ostrel::platform::Clock;

constexpr const char *kNoAnswer = "no answer in time";

// The one place where this transport's errno values become words. A user who typed a
// socket path wants to hear "no such socket" or "connection refused", not a system call.
std::string errnoText(const char *what) {
    int error = errno;
    if (std::string_view(what) == "connect") {
        switch (error) {
            case ENOENT:
                return "no such socket";
            case ECONNREFUSED:
                return "connection refused: nothing listens there any more";
            case ENOTSOCK:
                return "that file is not a socket";
            case EACCES:
                return "permission denied";
            default:
                break;
        }
    }
    return std::string(what) + ": " + std::generic_category().message(error);
}

// A connected non-blocking socket, or -1 with the reason in `error`.
int dial(const std::string &path, std::string &error) {
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error =
            "socket path must have 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes";
        return -1;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        error = errnoText("socket");
        return -1;
    }
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        // A Unix socket connects at once or not at all; EAGAIN means a full backlog.
        error = errnoText("connect");
        ::close(fd);
        return -1;
    }
    return fd;
}

// How moving bytes went: all moved, a failure, or the peer had closed the connection.
enum class Io { ok, failed, closed };

// Waits until `fd` is ready for `events` or the deadline passes. poll() is only the
// mechanism; whether the deadline has passed is the clock's to say.
bool await(int fd, short events, const Clock &clock, Clock::Monotonic deadline,
           std::string &error) {
    for (;;) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock.monotonic());
        if (left.count() <= 0) {
            error = kNoAnswer;
            return false;
        }
        pollfd p{fd, events, 0};
        int n = ::poll(&p, 1, static_cast<int>(left.count()));
        if (n > 0) {
            return true;
        }
        if (n < 0 && errno != EINTR) {
            error = errnoText("poll");
            return false;
        }
    }
}

Io sendAll(int fd, const std::uint8_t *data, std::size_t size, const Clock &clock,
           Clock::Monotonic deadline, std::string &error) {
    while (size > 0) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            size -= static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!await(fd, POLLOUT, clock, deadline, error)) {
                return Io::failed;
            }
        } else {
            bool closed = errno == EPIPE || errno == ECONNRESET;
            error = errnoText("send");
            return closed ? Io::closed : Io::failed;
        }
    }
    return Io::ok;
}

Io receiveAll(int fd, std::uint8_t *data, std::size_t size, const Clock &clock,
              Clock::Monotonic deadline, std::string &error) {
    while (size > 0) {
        ssize_t n = ::recv(fd, data, size, 0);
        if (n > 0) {
            data += n;
            size -= static_cast<std::size_t>(n);
        } else if (n == 0 || errno == ECONNRESET) {
            error = "the virtual Mac closed the connection";
            return Io::closed;
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!await(fd, POLLIN, clock, deadline, error)) {
                return Io::failed;
            }
        } else {
            error = errnoText("recv");
            return Io::failed;
        }
    }
    return Io::ok;
}

}  // namespace

OpenedTransport VsmcTransport::open(const std::string &path, Clock &clock,
                                    std::chrono::milliseconds timeout) {
    std::string error;
    int fd = dial(path, error);
    if (fd < 0) {
        return {SMC_ENOSERVICE, nullptr,
                "no virtual Mac answers at " + path + " (" + error +
                    "); start one with: ostrel-vsmc --profile NAME --socket " + path};
    }
    std::unique_ptr<VsmcTransport> transport(new VsmcTransport(path, clock, timeout, fd));
    // A virtual Mac that runs answers at once. One that accepted the connection but is
    // stopped (Ctrl-Z) or hung would otherwise make every request wait out the timeout;
    // asking for the model, which callers want anyway, finds out quickly.
    transport->timeout_ = transport->openTimeout();
    std::optional<nlohmann::json> reply = transport->call({{"call", "model"}}, &error);
    transport->timeout_ = timeout;
    if (!reply) {
        std::string why = error == kNoAnswer
                              ? fmt::format(
                                    "accepted the connection but did not answer within "
                                    "{} ms (is ostrel-vsmc stopped? resume it with fg "
                                    "or kill -CONT, or start it again)",
                                    transport->openTimeout().count())
                              : error;
        return {SMC_ENOSERVICE, nullptr, "the virtual Mac at " + path + " " + why};
    }
    if ((*reply)["model"].is_string()) {
        transport->model_ = (*reply)["model"].get<std::string>();
    }
    transport->quietUntil_ = {};
    return {SMC_OK, std::move(transport), ""};
}

void addVsmcTransport(TransportRegistry &registry, Clock &clock) {
    registry.add("vsmc", "vsmc:SOCKET", [&clock](std::string_view path) -> OpenedTransport {
        if (path.empty()) {
            return {SMC_ENOSERVICE, nullptr,
                    "OSTREL_SMC=vsmc: needs the virtual Mac's socket, e.g. "
                    "vsmc:/run/dev.ostrel.vsmc.sock"};
        }
        return VsmcTransport::open(std::string(path), clock);
    });
}

VsmcTransport::~VsmcTransport() {
    disconnect();
}

void VsmcTransport::disconnect() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool VsmcTransport::roundTrip(std::uint8_t kind, const void *payload, std::uint32_t length,
                              std::uint8_t replyKind, std::string &reply, std::string &error) {
    if (clock_.monotonic() < quietUntil_) {
        // It did not answer a moment ago: a caller reading key after key should hear so at
        // once rather than wait out the timeout for each.
        error = kNoAnswer;
        return false;
    }
    for (;;) {
        bool reused = fd_ >= 0;
        if (!reused && (fd_ = dial(path_, error)) < 0) {
            return false;
        }
        Outcome outcome = attempt(kind, payload, length, replyKind, reply, error);
        if (outcome == Outcome::ok) {
            return true;
        }
        // Whatever is left on this connection would answer the wrong request.
        disconnect();
        if (error == kNoAnswer) {
            quietUntil_ = clock_.monotonic() + timeout_;
        }
        // The server closes connections that sit idle; one found closed before a byte of
        // the reply came never carried the request, so a fresh connection carries it.
        if (outcome != Outcome::closedUnread || !reused) {
            return false;
        }
    }
}

VsmcTransport::Outcome VsmcTransport::attempt(std::uint8_t kind, const void *payload,
                                              std::uint32_t length, std::uint8_t replyKind,
                                              std::string &reply, std::string &error) {
    Clock::Monotonic deadline = clock_.monotonic() + timeout_;
    auto header = wire::encodeHeader(static_cast<wire::Kind>(kind), length);
    Io sent = sendAll(fd_, header.data(), header.size(), clock_, deadline, error);
    if (sent == Io::ok) {
        sent = sendAll(fd_, static_cast<const std::uint8_t *>(payload), length, clock_, deadline,
                       error);
    }
    if (sent != Io::ok) {
        return sent == Io::closed ? Outcome::closedUnread : Outcome::failed;
    }
    std::array<std::uint8_t, wire::kHeaderSize> answer{};
    Io received = receiveAll(fd_, answer.data(), 1, clock_, deadline, error);
    if (received == Io::closed) {
        return Outcome::closedUnread;
    }
    if (received != Io::ok ||
        receiveAll(fd_, answer.data() + 1, answer.size() - 1, clock_, deadline, error) != Io::ok) {
        return Outcome::failed;
    }
    std::optional<wire::Header> decoded = wire::decodeHeader(answer, false);
    if (!decoded || decoded->kind != replyKind) {
        error = "the virtual Mac answered with a malformed frame";
        return Outcome::failed;
    }
    reply.resize(decoded->length);
    if (receiveAll(fd_, reinterpret_cast<std::uint8_t *>(reply.data()), reply.size(), clock_,
                   deadline, error) != Io::ok) {
        return Outcome::failed;
    }
    return Outcome::ok;
}

std::uint32_t VsmcTransport::exchange(const smc_param &in, smc_param &out) {
    std::lock_guard lock(mutex_);
    std::string reply;
    std::string error;
    if (!roundTrip(wire::kExchange, &in, sizeof in, wire::kExchangeReply, reply, error)) {
        noteFailure("the virtual Mac at " + path_ + ": " +
                    (error == kNoAnswer ? fmt::format("no answer within {} ms (is ostrel-vsmc "
                                                      "stopped?)",
                                                      timeout_.count())
                                        : error));
        return SMC_KERN_NOT_RESPONDING;
    }
    std::uint32_t kern = 0;
    for (int i = 3; i >= 0; --i) {
        kern = (kern << 8) | static_cast<std::uint8_t>(reply[static_cast<std::size_t>(i)]);
    }
    std::memcpy(&out, reply.data() + 4, sizeof out);
    return kern;
}

std::optional<std::string> VsmcTransport::callText(const std::string &request, std::string *error) {
    std::string reply;
    std::string why;
    bool ok = false;
    if (request.empty() || request.size() > wire::kMaxCallSize) {
        why = "the request must have 1 to " + std::to_string(wire::kMaxCallSize) + " bytes";
    } else {
        std::lock_guard lock(mutex_);
        ok = roundTrip(wire::kCall, request.data(), static_cast<std::uint32_t>(request.size()),
                       wire::kCallReply, reply, why);
    }
    if (!ok) {
        if (error != nullptr) {
            *error = why;
        }
        return std::nullopt;
    }
    return reply;
}

std::optional<nlohmann::json> VsmcTransport::call(const nlohmann::json &request,
                                                  std::string *error) {
    auto reply =
        callText(request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), error);
    if (!reply) {
        return std::nullopt;
    }
    nlohmann::json json = nlohmann::json::parse(*reply, nullptr, false);
    if (!json.is_object()) {
        if (error != nullptr) {
            *error = "the virtual Mac's reply is not a JSON object";
        }
        return std::nullopt;
    }
    return json;
}

// A virtual Mac's profile, and so its model, is fixed while it runs: the answer at opening
// stands.
std::optional<std::string> VsmcTransport::modelIdentifier() {
    return model_;
}

std::optional<std::vector<TemperatureSensor>> VsmcTransport::temperatureSensors() {
    auto reply = call({{"call", "sensors"}});
    if (!reply || !(*reply)["sensors"].is_array()) {
        return std::nullopt;
    }
    std::vector<TemperatureSensor> sensors;
    for (const auto &item : (*reply)["sensors"]) {
        if (item.is_object() && item["name"].is_string() && item["celsius"].is_number()) {
            sensors.push_back({item["name"].get<std::string>(), item["celsius"].get<double>()});
        }
    }
    return sensors;
}

std::optional<nlohmann::json> VsmcTransport::batteryProperties() {
    auto reply = call({{"call", "battery"}});
    if (!reply || !reply->contains("battery")) {
        return std::nullopt;
    }
    return (*reply)["battery"];
}

}  // namespace csmc
