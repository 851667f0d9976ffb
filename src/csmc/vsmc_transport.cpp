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

#include "ostrel/vsmc/protocol.h"

namespace csmc {

namespace {

namespace protocol = ostrel::vsmc::protocol;
using Clock = std::chrono::steady_clock;

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

// Waits until `fd` is ready for `events` or the deadline passes.
bool await(int fd, short events, Clock::time_point deadline, std::string &error) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
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

bool sendAll(int fd, const std::uint8_t *data, std::size_t size, Clock::time_point deadline,
             std::string &error) {
    while (size > 0) {
        ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            size -= static_cast<std::size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!await(fd, POLLOUT, deadline, error)) {
                return false;
            }
        } else {
            error = errnoText("send");
            return false;
        }
    }
    return true;
}

bool receiveAll(int fd, std::uint8_t *data, std::size_t size, Clock::time_point deadline,
                std::string &error) {
    while (size > 0) {
        ssize_t n = ::recv(fd, data, size, 0);
        if (n > 0) {
            data += n;
            size -= static_cast<std::size_t>(n);
        } else if (n == 0) {
            error = "the virtual Mac closed the connection";
            return false;
        } else if (errno == EINTR) {
            continue;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!await(fd, POLLIN, deadline, error)) {
                return false;
            }
        } else {
            error = errnoText("recv");
            return false;
        }
    }
    return true;
}

}  // namespace

OpenedTransport VsmcTransport::open(const std::string &path, std::chrono::milliseconds timeout) {
    std::string error;
    int fd = dial(path, error);
    if (fd < 0) {
        return {SMC_ENOSERVICE, nullptr,
                "no virtual Mac answers at " + path + " (" + error +
                    "); start one with: ostrel-vsmc --profile NAME --socket " + path};
    }
    std::unique_ptr<VsmcTransport> transport(new VsmcTransport(path, timeout, fd));
    // A virtual Mac that runs answers at once. One that accepted the connection but is
    // stopped (Ctrl-Z) or hung would otherwise make every request wait out the timeout;
    // asking for the model, which callers want anyway, finds out quickly.
    transport->timeout_ = std::min(timeout, kOpenTimeout);
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
    return {SMC_OK, std::move(transport), ""};
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
    Clock::time_point now = Clock::now();
    if (now < quietUntil_) {
        // It did not answer a moment ago: a caller reading key after key should hear so at
        // once rather than wait out the timeout for each.
        error = kNoAnswer;
        return false;
    }
    if (fd_ < 0 && (fd_ = dial(path_, error)) < 0) {
        return false;
    }
    Clock::time_point deadline = now + timeout_;
    auto header = protocol::encodeHeader(static_cast<protocol::Kind>(kind), length);
    std::array<std::uint8_t, protocol::kHeaderSize> answer{};
    std::optional<protocol::Header> decoded;
    bool ok = sendAll(fd_, header.data(), header.size(), deadline, error) &&
              sendAll(fd_, static_cast<const std::uint8_t *>(payload), length, deadline, error) &&
              receiveAll(fd_, answer.data(), answer.size(), deadline, error);
    if (ok && (!(decoded = protocol::decodeHeader(answer, false)) || decoded->kind != replyKind)) {
        error = "the virtual Mac answered with a malformed frame";
        ok = false;
    }
    if (ok) {
        reply.resize(decoded->length);
        ok = receiveAll(fd_, reinterpret_cast<std::uint8_t *>(reply.data()), reply.size(), deadline,
                        error);
    }
    if (!ok) {
        // Whatever is left on this connection would answer the wrong request.
        disconnect();
        if (error == kNoAnswer) {
            quietUntil_ = Clock::now() + timeout_;
        }
    }
    return ok;
}

std::uint32_t VsmcTransport::exchange(const smc_param &in, smc_param &out) {
    std::lock_guard lock(mutex_);
    std::string reply;
    std::string error;
    if (!roundTrip(protocol::kExchange, &in, sizeof in, protocol::kExchangeReply, reply, error)) {
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
    if (request.empty() || request.size() > protocol::kMaxCallSize) {
        why = "the request must have 1 to " + std::to_string(protocol::kMaxCallSize) + " bytes";
    } else {
        std::lock_guard lock(mutex_);
        ok = roundTrip(protocol::kCall, request.data(), static_cast<std::uint32_t>(request.size()),
                       protocol::kCallReply, reply, why);
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
