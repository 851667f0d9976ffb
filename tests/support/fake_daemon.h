// A stand-in for the daemon's socket, served by a thread of the test: it accepts
// connections on a path, reads request lines and answers each as `respond` says (or not
// at all), or closes the connection without an answer. Destroying it closes everything,
// as a daemon that exits does; a new one on the same path is the restarted daemon.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ostrel/control_protocol.h"
#include "ostrel/platform/unique_fd.h"

namespace ostrel::test {

class FakeDaemon {
  public:
    // The reply text for a request (nothing: the request gets a null reply).
    using Respond = std::function<std::optional<std::string>(const ControlProtocol::Request &)>;
    enum class Mode { answer, silent, closeWithoutAnswer };

    FakeDaemon(const std::string &path, Mode mode, Respond respond = {})
        : mode_(mode), respond_(std::move(respond)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ::unlink(path.c_str());
        listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(listener_.get(), 16) != 0) {
            throw std::runtime_error("cannot listen on " + path);
        }
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeDaemon() {
        std::uint64_t one = 1;
        (void)!::write(wake_.get(), &one, sizeof one);
        thread_.join();
    }
    FakeDaemon(const FakeDaemon &) = delete;
    FakeDaemon &operator=(const FakeDaemon &) = delete;

    int connections() const { return accepted_; }
    // Waits until `count` requests have arrived in all (there is no time limit: the test
    // runner's own limit ends a test that waits for a request never sent).
    void awaitRequests(int count) {
        std::unique_lock guard(lock_);
        arrived_.wait(guard, [&] { return requests_ >= count; });
    }

  private:
    void serve() {
        std::map<int, std::pair<platform::UniqueFd, std::string>> clients;
        for (;;) {
            std::vector<pollfd> fds{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
            for (auto &[fd, client] : clients) {
                fds.push_back({fd, POLLIN, 0});
            }
            ::poll(fds.data(), fds.size(), -1);
            if (fds[0].revents != 0) {
                return;
            }
            if (fds[1].revents != 0) {
                platform::UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
                ++accepted_;
                int raw = fd.get();
                clients.emplace(raw, std::make_pair(std::move(fd), std::string()));
            }
            for (std::size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents != 0 && !receive(clients[fds[i].fd])) {
                    clients.erase(fds[i].fd);
                }
            }
        }
    }

    // Reads what arrived and answers the complete lines; false when the connection ends.
    bool receive(std::pair<platform::UniqueFd, std::string> &client) {
        char chunk[4096];
        ssize_t n = ::recv(client.first.get(), chunk, sizeof chunk, 0);
        if (n <= 0) {
            return false;
        }
        client.second.append(chunk, static_cast<std::size_t>(n));
        for (std::size_t newline; (newline = client.second.find('\n')) != std::string::npos;) {
            auto request = ControlProtocol::parseRequest(client.second.substr(0, newline));
            client.second.erase(0, newline + 1);
            {
                std::lock_guard guard(lock_);
                ++requests_;
            }
            arrived_.notify_all();
            if (!request || mode_ == Mode::closeWithoutAnswer) {
                return false;
            }
            if (mode_ == Mode::answer) {
                std::optional<std::string> text = respond_ ? respond_(*request) : std::nullopt;
                std::string line = ControlProtocol::replyLine({request->id, text});
                ::send(client.first.get(), line.data(), line.size(), MSG_NOSIGNAL);
            }
        }
        return true;
    }

    Mode mode_;
    Respond respond_;
    platform::UniqueFd listener_;
    platform::UniqueFd wake_{::eventfd(0, EFD_CLOEXEC)};
    std::atomic<int> accepted_{0};
    std::mutex lock_;
    std::condition_variable arrived_;
    int requests_ = 0;
    std::thread thread_;
};

}  // namespace ostrel::test
