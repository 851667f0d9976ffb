// Any bytes as what a client sends the virtual Mac's server: the frames are answered or
// refused without a crash, never more is consumed than arrived, and every answer is a
// well-formed reply frame.

#include <cstdint>
#include <string>
#include <string_view>

#include "csmc/vsmc_protocol.h"
#include "fuzz_check.h"
#include "ostrel/vsmc/server.h"
#include "ostrel/vsmc/virtual_mac.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel::vsmc;
    using ostrel::fuzz::check;
    namespace wire = csmc::vsmcwire;
    static const Profile profile = builtinProfile("macbookpro18-2");
    VirtualMac mac(profile, 0, 1);
    std::string_view bytes(reinterpret_cast<const char *>(data), size);
    auto consumed = answerFrames(mac, bytes, {true, 1, 0, 0}, [](std::string reply) {
        wire::Split frame = wire::splitFrame(reply, false);
        check(frame.state == wire::Split::frame && frame.size == reply.size());
        return true;
    });
    check(!consumed || *consumed <= size);
    return 0;
}
