// Plain POSIX file operations shared by the real implementations of the platform
// interfaces, reporting errno instead of throwing.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace ostrel::platform::posix {

// Appends what is left in the open file `fd` to `out`, reading in chunks of 64 KiB and
// retrying reads interrupted by a signal. Returns 0, the errno of the read that failed, or
// EFBIG when more than `limit` bytes are left; what was read before stays in `out`, and
// never more than `limit` bytes. Does not close `fd`.
int readRest(int fd, std::string &out, std::size_t limit = std::numeric_limits<std::size_t>::max());

// Opens `path` read-only and appends everything it holds to `out`. Returns 0 or the errno
// of the open or of a read (reads interrupted by a signal are retried); EFBIG when the file
// holds more than `limit` bytes (what was read stays in `out`).
int readAll(const std::string &path, std::string &out,
            std::size_t limit = std::numeric_limits<std::size_t>::max());

// Calls `step(done)`, a read(2) or write(2) of what is left after `done` bytes, until
// `size` bytes are through, retrying after signals. Returns 0 or the errno; a call that
// makes no progress counts as EIO.
template <typename Step>
int transferAll(std::size_t size, Step step) {
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = step(done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n < 0 ? errno : EIO;
        }
        done += static_cast<std::size_t>(n);
    }
    return 0;
}

// write(2) until all of `data` is written (retrying after signals). Returns 0 or the errno;
// a write that makes no progress counts as EIO.
int writeAll(int fd, std::string_view data);

}  // namespace ostrel::platform::posix
