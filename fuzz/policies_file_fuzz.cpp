// Any bytes as the daemon's policies file (root owns it, but a disk error, an editor or an
// older release may have left anything there): loading never throws and keeps only valid
// policies of canonical fan indices, and what it kept saves and loads back unchanged.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_check.h"
#include "ostrel/policy_store.h"

using ostrel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    const std::string path = "/var/lib/dev.ostrel/fan-policies.json";
    platform::FakeFiles files;
    files.put(path, std::string(reinterpret_cast<const char *>(data), size));
    PolicyMap loaded = PolicyStore::load(path, files);
    for (const auto &[fan, policy] : loaded) {
        check(fan >= 0);
        policy.validate();  // an invalid policy throws, and libFuzzer reports it
        static_cast<void>(policy.description());
    }
    PolicyStore::save(loaded, path, files);
    check(PolicyStore::load(path, files) == loaded);
    return 0;
}
