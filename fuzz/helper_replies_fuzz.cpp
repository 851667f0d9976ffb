// Any bytes as the daemon's side of a connection, as the helper client reads them: the
// first byte picks where the stream is cut into chunks. However it is cut, the reader
// yields the same replies and stops at the same fault, never holds more than one line's
// limit, and each reply's text is either a policy map or a DecodingError.

#include <cstdint>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "ostrel/helper_client.h"
#include "ostrel/json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    using ostrel::fuzz::check;
    if (size == 0) {
        return 0;
    }
    std::size_t step = data[0] + 1u;
    std::string_view stream(reinterpret_cast<const char *>(data + 1), size - 1);

    ReplyReader whole;
    ReplyReader::Result once = whole.feed(stream);
    ReplyReader chunked;
    std::vector<ControlProtocol::Reply> replies;
    bool failed = false;
    for (std::size_t at = 0; at < stream.size() && !failed; at += step) {
        ReplyReader::Result part = chunked.feed(stream.substr(at, step));
        replies.insert(replies.end(), part.replies.begin(), part.replies.end());
        failed = part.error.has_value();
        check(chunked.buffered() <= ControlProtocol::maxLineBytes);
    }
    check(replies == once.replies);
    check(failed == once.error.has_value());

    for (const ControlProtocol::Reply &reply : replies) {
        try {
            for (const auto &[fan, policy] : decodePolicies(reply.text.value_or("{}"))) {
                check(fan >= 0);
                static_cast<void>(policy.description());
            }
        } catch (const DecodingError &e) {
            check(e.what()[0] != '\0');
        }
    }
    return 0;
}
