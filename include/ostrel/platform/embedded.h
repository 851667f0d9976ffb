// Files compiled into the binaries (built-in machine profiles and the like).
#pragma once

#include <cstddef>
#include <string_view>

namespace ostrel {

struct EmbeddedFile {
    const char *name;  // the file's base name without extension
    const char *data;  // its bytes, followed by a NUL that is not counted in size
    std::size_t size;

    std::string_view text() const { return {data, size}; }
};

}  // namespace ostrel
