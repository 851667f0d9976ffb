// The kernel's word on the process at the other end of a Unix socket, behind an interface:
// the real one (SO_PEERCRED, pidfds, /proc) or a fake for tests.
#pragma once

#include <cstdint>

#include "ostrel/platform/file_access.h"
#include "ostrel/platform/unique_fd.h"

namespace ostrel::platform {

// The peer of a connected socket.
struct SocketPeer {
    int error = 0;  // 0, or the errno of the failed step (ESRCH: the peer is gone)
    int pid = 0;    // as of connect(2), in this process's pid namespace
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    // A pidfd of that very process, so that it cannot be confused with a later one that
    // gets the same pid. Invalid only in a fake.
    UniqueFd pidfd;
};

// Implementations must be safe to call from several threads at once.
class ProcessAccess {
  public:
    virtual ~ProcessAccess() = default;
    // The credentials and a pidfd of the process that connected `socketFd`.
    virtual SocketPeer socketPeer(int socketFd) const = 0;
    // Whether the process behind `pidfd` has exited (a zombie counts as exited).
    virtual bool exited(const UniqueFd &pidfd) const = 0;
    // The files under /proc and the files they name.
    virtual const FileAccess &files() const = 0;
};

// How the real implementation gets its pidfd.
enum class PidfdSource {
    // SO_PEERPIDFD (Linux 6.5) where the kernel has it, else as `byPid`.
    socket,
    // pidfd_open on SO_PEERCRED's pid, then a check that the socket still has its peer,
    // which is connected as long as the process that connected it lives (unless it handed
    // the socket on).
    byPid,
};

// The real kernel interfaces and file system. Holds no state.
const ProcessAccess &realProcessAccess(PidfdSource source = PidfdSource::socket);

// A peer made up for tests: fixed credentials, no pidfd, and /proc served from `files`.
class FakeProcessAccess final : public ProcessAccess {
  public:
    SocketPeer socketPeer(int socketFd) const override;
    bool exited(const UniqueFd &) const override { return exited_; }
    const FileAccess &files() const override { return files_; }

    FakeFileAccess &fakeFiles() { return files_; }
    // What socketPeer answers for any socket (pid 0 with an error when `error` is set).
    void setPeer(int pid, std::uint32_t uid, std::uint32_t gid, int error = 0) {
        pid_ = pid, uid_ = uid, gid_ = gid, error_ = error;
    }
    void setExited(bool exited) { exited_ = exited; }

  private:
    FakeFileAccess files_;
    int pid_ = 0, error_ = 0;
    std::uint32_t uid_ = 0, gid_ = 0;
    bool exited_ = false;
};

}  // namespace ostrel::platform
