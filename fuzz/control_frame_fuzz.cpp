// Any bytes as one line on the daemon's socket, from either side: parsing never throws, and
// whatever parses is written back to a line that parses to the same request or reply.

#include <cstdint>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/control_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel::ControlProtocol;
    using ostrel::fuzz::check;
    std::string_view line(reinterpret_cast<const char *>(data), size);
    if (auto request = parseRequest(line)) {
        std::string again = requestLine(*request);
        check(again.back() == '\n');
        check(parseRequest(std::string_view(again).substr(0, again.size() - 1)) == request);
    }
    if (auto reply = parseReply(line)) {
        std::string again = replyLine(*reply);
        check(parseReply(again) == reply);
    }
    return 0;
}
