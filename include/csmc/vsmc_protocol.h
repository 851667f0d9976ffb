// The virtual Mac's wire protocol on its Unix stream socket (docs/vsmc-protocol.md),
// shared by the server (ostrel-vsmc) and the channel's `vsmc` transport.
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
#include <cstdint>
#include <optional>

namespace ostrel::vsmc::protocol {

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

}  // namespace ostrel::vsmc::protocol
