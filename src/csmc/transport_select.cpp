// Picks the transport that OSTREL_SMC names.

#include <algorithm>
#include <string>

#include "csmc/applesmc.h"
#include "csmc/transport.h"
#include "csmc/vsmc_transport.h"
#include "ostrel/platform/paths.h"
#include "ostrel/platform/sysfs.h"
#include "ostrel/vsmc/memory_transport.h"

namespace csmc {

OpenedTransport openTransport(std::string_view selector) {
    constexpr std::string_view kMemory = "memory:";
    if (selector.starts_with(kMemory)) {
        std::string_view profile = selector.substr(kMemory.size());
        if (profile.empty()) {
            return {SMC_ENOSERVICE, nullptr,
                    "OSTREL_SMC=memory: needs a profile name or file, e.g. "
                    "memory:macbookpro10-1"};
        }
        return ostrel::vsmc::openSharedMachine(profile);
    }
    constexpr std::string_view kApplesmc = "applesmc";
    if (selector == kApplesmc || selector.starts_with("applesmc:")) {
        std::string_view dir = selector.substr(std::min(selector.size(), kApplesmc.size() + 1));
        return openApplesmc(dir, ostrel::platform::realSysfs(), ostrel::platform::Paths());
    }
    constexpr std::string_view kVsmc = "vsmc:";
    if (selector.starts_with(kVsmc)) {
        std::string_view path = selector.substr(kVsmc.size());
        if (path.empty()) {
            return {SMC_ENOSERVICE, nullptr,
                    "OSTREL_SMC=vsmc: needs the virtual Mac's socket, e.g. "
                    "vsmc:/run/dev.ostrel.vsmc.sock"};
        }
        return VsmcTransport::open(std::string(path));
    }
    if (selector.empty()) {
        // On Linux the platform's SMC is the applesmc driver's, when it is loaded.
        OpenedTransport applesmc =
            openApplesmc("", ostrel::platform::realSysfs(), ostrel::platform::Paths());
        if (applesmc.status == SMC_OK) {
            return applesmc;
        }
        return {SMC_ENOSERVICE, nullptr,
                "no SMC found (" + applesmc.detail +
                    "); set OSTREL_SMC to memory:PROFILE, vsmc:SOCKET or applesmc[:DIR]"};
    }
    std::string_view name = selector.substr(0, selector.find(':'));
    return {SMC_ENOSERVICE, nullptr,
            "unknown transport \"" + std::string(name) +
                "\" in OSTREL_SMC=" + std::string(selector) +
                " (expected memory:PROFILE, vsmc:SOCKET or applesmc[:DIR])"};
}

}  // namespace csmc
