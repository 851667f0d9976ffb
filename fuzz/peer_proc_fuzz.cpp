// Any bytes as /proc/PID/maps and /proc/PID/status text: the readers never crash, and what
// they keep is what vetting needs (file-backed mappings only).

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/peer_identity.h"

using ostrel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char *>(data), size);
    if (auto mappings = ostrel::executableMappings(text)) {
        for (const ostrel::ExecutableMapping &m : *mappings) {
            check(m.inode != 0);
        }
    }
    ostrel::tracerPid(text);
    return 0;
}
