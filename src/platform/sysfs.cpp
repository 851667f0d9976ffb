#include "ostrel/platform/sysfs.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "posix_io.h"

namespace ostrel::platform {

namespace {

// Holding the open file holds the flock; closing it releases the lock.
class FlockHold final : public HeldLock {
  public:
    explicit FlockHold(int fd) : fd_(fd) {}
    ~FlockHold() override { ::close(fd_); }
    FlockHold(const FlockHold &) = delete;
    FlockHold &operator=(const FlockHold &) = delete;

  private:
    int fd_;
};

class RealSysfs final : public Sysfs {
  public:
    AttributeRead read(const std::string &path) override {
        AttributeRead result;
        result.error = posix::readAll(path, result.contents);
        if (result.error != 0) {
            result.contents.clear();
        }
        return result;
    }

    int write(const std::string &path, std::string_view text) override {
        // O_TRUNC is ignored by sysfs and keeps plain files (tests, sandboxes) exact.
        int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        if (fd < 0) {
            return errno;
        }
        ssize_t n;
        do {
            n = ::write(fd, text.data(), text.size());
        } while (n < 0 && errno == EINTR);
        int error = n < 0 ? errno : (static_cast<std::size_t>(n) == text.size() ? 0 : EIO);
        ::close(fd);
        return error;
    }

    LockResult lockExclusive(const std::string &path) override {
        // 0600: only root takes this lock; a readable file would let any user hold it and
        // stall the daemon.
        constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
        int fd = ::open(path.c_str(), kFlags, 0600);
        if (fd < 0 && errno == ENOENT) {
            std::error_code ignored;  // a directory that cannot be made shows up in open()
            std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
            fd = ::open(path.c_str(), kFlags, 0600);
        }
        if (fd < 0) {
            return {errno, nullptr};
        }
        int rc;
        do {
            rc = ::flock(fd, LOCK_EX);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) {
            int error = errno;
            ::close(fd);
            return {error, nullptr};
        }
        return {0, std::make_unique<FlockHold>(fd)};
    }
};

}  // namespace

Sysfs &realSysfs() {
    static RealSysfs sysfs;
    return sysfs;
}

}  // namespace ostrel::platform
