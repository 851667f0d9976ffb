// Any bytes as a discovery cache file (the file sits in the user's cache directory, where
// anything may have written it): reading never throws, and a cache that reads back is
// written out as text that reads back to the same discovery, and prints safely.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/discovery.h"
#include "ostrel/platform/text.h"

using ostrel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    std::optional<Discovery> read =
        Discovery::fromCache(std::string_view(reinterpret_cast<const char *>(data), size));
    if (!read) {
        return 0;
    }
    check(read->version == Discovery::kVersion);
    check(Discovery::fromCache(read->cacheData()) == read);
    for (const SensorDescriptor &sensor : read->sensors) {
        for (char c : text::printable(sensor.name)) {
            check(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F);
        }
    }
    static_cast<void>(Json(*read).dump(-1, ' ', false, Json::error_handler_t::strict));
    return 0;
}
