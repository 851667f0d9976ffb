// Plain POSIX file operations shared by the real implementations of the platform
// interfaces, reporting errno instead of throwing.
#pragma once

#include <string>

namespace ostrel::platform::posix {

// Appends everything left in the open file `fd` to `out`, reading in chunks of 64 KiB.
// Returns 0, or the errno of the read that failed; what was read before it stays in `out`.
// Reads interrupted by a signal are retried. Does not close `fd`.
int readRest(int fd, std::string &out);

// Opens `path` read-only and appends everything it holds to `out`. Returns 0 or the errno
// of the open or of a read.
int readAll(const std::string &path, std::string &out);

}  // namespace ostrel::platform::posix
