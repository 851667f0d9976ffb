// A stand-in for the daemon's socket, served by a thread of the test one connection at a
// time: it answers each request line as `respond` says, never answers, or closes the
// connection without an answer. Destroying it closes everything, as a daemon that exits
// does; a new one on the same path is the restarted daemon.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "ostrel/control_protocol.h"
#include "support/unix_socket.h"

namespace ostrel::test {

class FakeDaemon {
  public:
    // The reply text for a request (nothing: a null reply).
    using Respond = std::function<std::optional<std::string>(const ControlProtocol::Request &)>;
    enum class Mode { answer, silent, closeWithoutAnswer };

    FakeDaemon(const std::string &path, Mode mode, Respond respond) {
        ::unlink(path.c_str());
        listener_ = rawSocket(path, true);
        ::listen(listener_, 16);
        thread_ = std::thread([this, mode, respond = std::move(respond)] {
            while ((peer_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
                ++connections_;
                std::string input;
                char chunk[4096];
                for (ssize_t n; (n = ::recv(peer_, chunk, sizeof chunk, 0)) > 0;) {
                    input.append(chunk, static_cast<std::size_t>(n));
                    for (std::size_t end; (end = input.find('\n')) != std::string::npos;) {
                        auto request = ControlProtocol::parseRequest(input.substr(0, end));
                        input.erase(0, end + 1);
                        ++requests_;
                        requests_.notify_all();
                        if (!request || mode == Mode::closeWithoutAnswer) {
                            ::shutdown(peer_, SHUT_RDWR);
                        } else if (mode == Mode::answer) {
                            sendAll(peer_,
                                    ControlProtocol::replyLine({request->id, respond(*request)}));
                        }
                    }
                }
                ::close(peer_.exchange(-1));
            }
        });
    }
    ~FakeDaemon() {
        ::shutdown(listener_, SHUT_RDWR);  // ends the accept loop...
        ::shutdown(peer_, SHUT_RDWR);      // ...after the connection it serves
        thread_.join();
        ::close(listener_);
    }

    int connections() const { return connections_; }
    // Waits until `count` requests have arrived in all (the test runner's limit ends a
    // test that waits for a request never sent).
    void awaitRequests(int count) {
        for (int seen; (seen = requests_) < count;) {
            requests_.wait(seen);
        }
    }

  private:
    int listener_ = -1;
    std::atomic<int> peer_{-1};
    std::atomic<int> connections_{0};
    std::atomic<int> requests_{0};
    std::thread thread_;
};

}  // namespace ostrel::test
