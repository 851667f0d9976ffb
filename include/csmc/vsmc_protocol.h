// The virtual Mac's wire protocol on its Unix stream socket (docs/vsmc-protocol.md),
// shared by the channel's `vsmc` transport and the server (ostrel-vsmc), which both
// include it from here, below either of them.
//
// Every message is a frame: an 8-byte header, then `length` payload bytes.
//
//     offset 0  'V' 'M'        magic
//     offset 2  kind           one byte, below
//     offset 3  0              reserved
//     offset 4  length         unsigned 32-bit, little-endian
//
// A client sends a request and waits for its reply before it sends the next one on the
// same connection. A frame the server cannot use (bad magic, unknown kind, wrong or
// oversized length, a call that is not a JSON object) closes that connection.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace csmc::vsmcwire {

enum Kind : std::uint8_t {
    kExchange = 0x01,       // request: the 80-byte parameter record
    kCall = 0x02,           // request: a JSON object, UTF-8
    kExchangeReply = 0x81,  // reply: the IOKit-style return code (u32 LE), then the record
    kCallReply = 0x82,      // reply: a JSON object
};

inline constexpr std::size_t kHeaderSize = 8;
inline constexpr std::uint32_t kRecordSize = 80;
inline constexpr std::uint32_t kExchangeReplySize = 4 + kRecordSize;
inline constexpr std::uint32_t kMaxCallSize = 1u << 20;  // room for a long scenario
// The largest frame either side ever has to hold.
inline constexpr std::size_t kMaxFrameSize = kHeaderSize + kMaxCallSize;

struct Header {
    Kind kind;
    std::uint32_t length;
};

inline std::array<std::uint8_t, kHeaderSize> encodeHeader(Kind kind, std::uint32_t length) {
    return {'V',
            'M',
            kind,
            0,
            static_cast<std::uint8_t>(length),
            static_cast<std::uint8_t>(length >> 8),
            static_cast<std::uint8_t>(length >> 16),
            static_cast<std::uint8_t>(length >> 24)};
}

// The header, or nothing when it is not one a peer may send: `requests` selects the two
// request kinds (what a server accepts) or the two reply kinds (what a client accepts).
// Lengths are checked against their kind.
inline std::optional<Header> decodeHeader(const std::array<std::uint8_t, kHeaderSize> &bytes,
                                          bool requests) {
    if (bytes[0] != 'V' || bytes[1] != 'M' || bytes[3] != 0) {
        return std::nullopt;
    }
    std::uint32_t length = bytes[4] | (std::uint32_t{bytes[5]} << 8) |
                           (std::uint32_t{bytes[6]} << 16) | (std::uint32_t{bytes[7]} << 24);
    auto kind = static_cast<Kind>(bytes[2]);
    bool fits = false;
    switch (kind) {
        case kExchange:
            fits = requests && length == kRecordSize;
            break;
        case kExchangeReply:
            fits = !requests && length == kExchangeReplySize;
            break;
        case kCall:
            fits = requests && length > 0 && length <= kMaxCallSize;
            break;
        case kCallReply:
            fits = !requests && length > 0 && length <= kMaxCallSize;
            break;
    }
    if (!fits) {
        return std::nullopt;
    }
    return Header{kind, length};
}

// What the front of a receive buffer holds: not yet a whole frame, one whole frame (its
// header, payload and total size), or bytes no peer may send.
struct Split {
    enum State { incomplete, frame, bad } state = incomplete;
    Header header{};
    std::string_view payload;
    std::size_t size = 0;  // header and payload, when state is frame
};

// Splits the first frame off `buffered` as it arrived so far. A bad header is known as soon
// as its eight bytes are there, so nobody waits for (or holds) a payload it announced.
inline Split splitFrame(std::string_view buffered, bool requests) {
    if (buffered.size() < kHeaderSize) {
        return {};
    }
    std::array<std::uint8_t, kHeaderSize> bytes{};
    for (std::size_t i = 0; i < kHeaderSize; ++i) {
        bytes[i] = static_cast<std::uint8_t>(buffered[i]);
    }
    std::optional<Header> header = decodeHeader(bytes, requests);
    if (!header) {
        return {Split::bad, {}, {}, 0};
    }
    std::size_t size = kHeaderSize + header->length;
    if (buffered.size() < size) {
        return {Split::incomplete, *header, {}, 0};
    }
    return {Split::frame, *header, buffered.substr(kHeaderSize, header->length), size};
}

}  // namespace csmc::vsmcwire
