// An io_context run on its own thread, for servers whose clients block in the test's
// thread, and the raw socket moves that tests of those servers make.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio.hpp>
#include <cstring>
#include <future>
#include <string>
#include <thread>

namespace ostrel::test {

class IoThread {
  public:
    IoThread() : thread_([this] { io.run(); }) {}
    ~IoThread() {
        guard_.reset();
        thread_.join();
    }
    IoThread(const IoThread &) = delete;
    IoThread &operator=(const IoThread &) = delete;

    // Runs `fn` on the io thread and returns its result once it has run. Servers are made,
    // inspected and destroyed this way.
    template <class F>
    auto run(F fn) -> decltype(fn()) {
        std::packaged_task<decltype(fn())()> task(std::move(fn));
        auto result = task.get_future();
        asio::post(io, [&task] { task(); });
        return result.get();
    }

    asio::io_context io;

  private:
    asio::executor_work_guard<asio::io_context::executor_type> guard_ = asio::make_work_guard(io);
    std::thread thread_;
};

// A Unix stream socket connected to `path` (or, with `bound`, bound to it); -1 on failure.
inline int rawSocket(const std::string &path, bool bound = false) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto *raw = reinterpret_cast<sockaddr *>(&address);
    if ((bound ? ::bind(fd, raw, sizeof address) : ::connect(fd, raw, sizeof address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

inline bool sendAll(int fd, const std::string &bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

// Reads until the peer closes the connection (true) or nothing arrives for 10 s of waiting
// on the socket (false: the test fails rather than hangs).
inline bool closedByPeer(int fd) {
    char chunk[4096];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 10000) != 1) {
            return false;
        }
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return true;  // closed, or reset with our bytes unread
        }
    }
}

}  // namespace ostrel::test
