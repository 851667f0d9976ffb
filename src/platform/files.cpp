#include "ostrel/platform/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "posix_io.h"

namespace ostrel::platform {

namespace posix {

int readAll(const std::string &path, std::string &out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    char chunk[65536];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            int error = errno;
            ::close(fd);
            return error;
        }
        if (n == 0) {
            break;
        }
        out.append(chunk, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return 0;
}

}  // namespace posix

namespace {

class RealFiles final : public Files {
  public:
    std::optional<std::string> read(const std::string &path) const override {
        std::string contents;
        if (posix::readAll(path, contents) != 0) {
            return std::nullopt;
        }
        return contents;
    }
};

}  // namespace

const Files &realFiles() {
    static const RealFiles files;
    return files;
}

std::optional<std::string> FakeFiles::read(const std::string &path) const {
    auto it = files_.find(path);
    if (it == files_.end()) {
        return std::nullopt;
    }
    return it->second;
}

}  // namespace ostrel::platform
