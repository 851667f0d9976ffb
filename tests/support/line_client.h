// One connection to the daemon's socket from the test or benchmark process itself, which
// its build signs as the command-line program so that vetting serves it.
#pragma once

#include <optional>
#include <string>

#include "ostrel/control_protocol.h"
#include "ostrel/platform/unique_fd.h"
#include "support/unix_socket.h"

namespace ostrel::test {

// The request line, newline included, that sets `policy` (its JSON text) on `fan`.
inline std::string setPolicyLine(std::int64_t id, std::int64_t fan, const std::string &policy) {
    return ControlProtocol::requestLine({id, ControlProtocol::Call::setPolicy, fan, policy});
}
// The request line, newline included, of a `call` without arguments.
inline std::string requestLine(std::int64_t id, ControlProtocol::Call call) {
    return ControlProtocol::requestLine({id, call, 0, ""});
}

class LineClient {
  public:
    explicit LineClient(const std::string &path) : fd_(rawSocket(path)) {}
    bool connected() const { return fd_.get() >= 0; }
    bool send(const std::string &bytes) { return sendAll(fd_.get(), bytes); }
    // The next line without its newline; nothing once the daemon closed the connection
    // (or after 20 s without one), or when it never connected.
    std::optional<std::string> reply() {
        while (connected()) {
            if (std::size_t end = buffer_.find('\n'); end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            pollfd ready{fd_.get(), POLLIN, 0};
            char chunk[4096];
            ssize_t n = ::poll(&ready, 1, 20000) == 1 ? ::read(fd_.get(), chunk, sizeof chunk) : 0;
            if (n <= 0) {
                return std::nullopt;
            }
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
        return std::nullopt;
    }

  private:
    platform::UniqueFd fd_;
    std::string buffer_;
};

}  // namespace ostrel::test
