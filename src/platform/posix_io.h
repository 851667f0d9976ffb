// Plain POSIX file operations shared by the real implementations of the platform
// interfaces, reporting errno instead of throwing.
#pragma once

#include <cstddef>
#include <limits>
#include <string>

namespace ostrel::platform::posix {

// Opens `path` read-only and appends everything it holds to `out`. Returns 0 or the errno
// of the open or of a read (reads interrupted by a signal are retried); EFBIG when the file
// holds more than `limit` bytes (then at most limit + 1 bytes were appended).
int readAll(const std::string &path, std::string &out,
            std::size_t limit = std::numeric_limits<std::size_t>::max());

}  // namespace ostrel::platform::posix
