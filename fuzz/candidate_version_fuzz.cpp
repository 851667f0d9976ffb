// Any bytes as what a self-update candidate prints for --print-version: reading the version
// never throws, yields valid UTF-8 without white space at its ends, and the version order
// is a total order (antisymmetric, reflexive, and consistent across the two halves of the
// input).

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/helper_self_update.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    using fuzz::check;
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    platform::FakeProcesses processes;
    processes.respond = [&](const platform::ProcessLaunch &) {
        platform::ProcessResult result;
        result.exitCode = 0;
        result.output = std::string(bytes);
        return result;
    };
    if (std::optional<std::string> version = HelperSelfUpdate::version("/candidate", processes)) {
        check(!version->empty());
        for (char end : {version->front(), version->back()}) {
            check(end != ' ' && end != '\n' && end != '\r' && end != '\t');
        }
        check(HelperSelfUpdate::compareVersions(*version, *version) == 0);
    }
    std::string_view a = bytes.substr(0, size / 2), b = bytes.substr(size / 2);
    int ab = HelperSelfUpdate::compareVersions(a, b), ba = HelperSelfUpdate::compareVersions(b, a);
    check(ab == -ba && ab >= -1 && ab <= 1);
    return 0;
}
