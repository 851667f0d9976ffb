#include "ostrel/platform/process_access.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

// Debian 12's headers predate it. This is the generic value (x86, Arm, RISC-V); the few
// architectures with their own socket numbers would need theirs here.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace ostrel::platform {

namespace {

// True when poll says `fd` is ready with one of `events` right now.
bool pollsReady(int fd, short events) {
    pollfd p{fd, events, 0};
    int n;
    do {
        n = ::poll(&p, 1, 0);
    } while (n < 0 && errno == EINTR);
    return n > 0 && (p.revents & (events | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

class RealProcessAccess final : public ProcessAccess {
  public:
    explicit RealProcessAccess(PidfdSource source) : source_(source) {}

    SocketPeer socketPeer(int socketFd) const override {
        SocketPeer peer;
        ucred cred{};
        socklen_t length = sizeof cred;
        if (::getsockopt(socketFd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) {
            peer.error = errno;
            return peer;
        }
        // A peer in a pid namespace we cannot see has pid 0: nothing to examine.
        if (cred.pid <= 0) {
            peer.error = ESRCH;
            return peer;
        }
        peer.pid = cred.pid;
        peer.uid = cred.uid;
        peer.gid = cred.gid;

        int pidfd = -1;
        length = sizeof pidfd;
        if (source_ == PidfdSource::socket &&
            ::getsockopt(socketFd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) == 0) {
            peer.pidfd.reset(pidfd);
            return peer;
        }
        if (source_ == PidfdSource::socket && errno != ENOPROTOOPT) {
            peer.error = errno;
            return peer;
        }
        // Through syscall(2): Debian 12's <sys/pidfd.h> cannot be used from C++.
        peer.pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, cred.pid, 0)));
        if (!peer.pidfd.valid()) {
            peer.error = errno;
        } else if (pollsReady(socketFd, POLLHUP)) {
            // The connecting process let go of the socket, so the pid may already belong
            // to someone else.
            peer.error = ESRCH;
        }
        return peer;
    }

    bool exited(const UniqueFd &pidfd) const override {
        // A pidfd polls readable once its process has exited.
        return !pidfd.valid() || pollsReady(pidfd.get(), POLLIN);
    }

    const FileAccess &files() const override { return realFileAccess(); }

  private:
    PidfdSource source_;
};

}  // namespace

const ProcessAccess &realProcessAccess(PidfdSource source) {
    static const RealProcessAccess bySocket(PidfdSource::socket);
    static const RealProcessAccess byPid(PidfdSource::byPid);
    return source == PidfdSource::socket ? bySocket : byPid;
}

SocketPeer FakeProcessAccess::socketPeer(int) const {
    SocketPeer peer;
    peer.error = error_;
    if (error_ == 0) {
        peer.pid = pid_;
        peer.uid = uid_;
        peer.gid = gid_;
    }
    return peer;
}

}  // namespace ostrel::platform
