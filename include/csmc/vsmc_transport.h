// The `vsmc` transport: the channel talks to an `ostrel-vsmc` server on a Unix socket
// (OSTREL_SMC=vsmc:SOCKET). Each 80-byte exchange is one request and one reply on the
// connection; the model identifier, the temperature-sensor services and the battery travel
// on the same connection as JSON calls. Wire format: csmc/vsmc_protocol.h and
// docs/vsmc-protocol.md.
#pragma once

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "csmc/transport.h"
#include "csmc/transport_registry.h"
#include "ostrel/platform/clock.h"

namespace csmc {

class VsmcTransport final : public Transport {
  public:
    static constexpr std::chrono::milliseconds kDefaultTimeout{5000};
    // How long opening waits for the first answer (at most `timeout`).
    static constexpr std::chrono::milliseconds kOpenTimeout{2000};

    // Connects to the server at `path` and asks for its model. SMC_ENOSERVICE with a
    // `detail` saying what failed (no such socket, connection refused, no answer within the
    // open timeout) when no virtual Mac answers there. Round trips give up `timeout` after
    // they start, as `clock` (monotonic, must outlive the transport) measures it.
    static OpenedTransport open(const std::string &path, ostrel::platform::Clock &clock,
                                std::chrono::milliseconds timeout = kDefaultTimeout);

    ~VsmcTransport() override;

    // Safe from any number of threads: the round trips of one connection take turns. A
    // server that is gone, hangs past the timeout or answers garbage gives
    // SMC_KERN_NOT_RESPONDING (and smc_error_detail() says which); the connection is then
    // dropped and the next call dials again, so a restarted server is picked up. After a
    // timeout, calls fail at once for one more timeout's length instead of each waiting. A
    // connection the server closed while it sat idle is redialled at once: the request
    // never reached the server, so it is sent again on the new connection.
    std::uint32_t exchange(const smc_param &in, smc_param &out) override;
    std::optional<std::string> modelIdentifier() override;
    std::optional<std::vector<TemperatureSensor>> temperatureSensors() override;
    std::optional<nlohmann::json> batteryProperties() override;

    // One JSON call ({"call": NAME, ...}); the server's reply object, or nothing with the
    // reason in `error` when the server could not be reached or answered garbage.
    std::optional<nlohmann::json> call(const nlohmann::json &request, std::string *error = nullptr);
    // The same with the texts as they travel (for callers that keep the members' order).
    std::optional<std::string> callText(const std::string &request, std::string *error = nullptr);

  private:
    enum class Outcome { ok, failed, closedUnread };

    VsmcTransport(std::string path, ostrel::platform::Clock &clock,
                  std::chrono::milliseconds timeout, int fd)
        : path_(std::move(path)), clock_(clock), timeout_(timeout), fd_(fd) {}

    std::chrono::milliseconds openTimeout() const { return std::min(timeout_, kOpenTimeout); }

    // Sends one frame and receives the reply of `replyKind`; false (connection dropped)
    // with the reason in `error` on any failure. The caller holds mutex_.
    bool roundTrip(std::uint8_t kind, const void *payload, std::uint32_t length,
                   std::uint8_t replyKind, std::string &reply, std::string &error);
    Outcome attempt(std::uint8_t kind, const void *payload, std::uint32_t length,
                    std::uint8_t replyKind, std::string &reply, std::string &error);
    void disconnect();

    std::string path_;
    ostrel::platform::Clock &clock_;
    std::chrono::milliseconds timeout_;
    std::mutex mutex_;  // guards fd_ and quietUntil_
    int fd_ = -1;
    ostrel::platform::Clock::Monotonic quietUntil_{};
    std::optional<std::string> model_;  // as the server told it at opening
};

// Registers "vsmc:SOCKET", timing round trips with `clock` (which must outlive the
// registry and every transport it opens).
void addVsmcTransport(TransportRegistry &registry, ostrel::platform::Clock &clock);

}  // namespace csmc
