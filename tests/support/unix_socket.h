// Raw Unix-socket moves for tests and their stand-in peers.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace ostrel::test {

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

// False when not all of `bytes` went, as when the peer closed the connection: no SIGPIPE.
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
