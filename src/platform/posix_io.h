// Plain POSIX file operations shared by the real implementations of the platform
// interfaces, reporting errno instead of throwing.
#pragma once

#include <string>

namespace ostrel::platform::posix {

// Opens `path` read-only and appends everything it holds to `out`. Returns 0 or the errno
// of the open or of a read (reads interrupted by a signal are retried).
int readAll(const std::string &path, std::string &out);

}  // namespace ostrel::platform::posix
