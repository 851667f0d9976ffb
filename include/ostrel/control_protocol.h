// The control protocol between the daemon and its clients on the daemon's Unix socket: one
// JSON object per line, UTF-8, several requests in flight on one connection, each reply
// carrying its request's id.
//
//     {"id":1,"call":"version"}                       -> {"id":1,"reply":"1/1.1.13"}
//     {"id":2,"call":"setPolicy","fan":0,"policy":"{\"fixed\":{\"rpm\":2500}}"}
//                                                     -> {"id":2,"reply":null}
//                                                        {"id":2,"reply":"<message>"}
//     {"id":3,"call":"policies"}                      -> {"id":3,"reply":"{\"0\":...}"}
//
// The policy and the policies travel as JSON text inside a string: they are data to the
// protocol and are decoded by the policy coders (policy_coding.h), so a policy the daemon
// cannot decode still reaches it and gets the decoder's message back. A line that is not
// a request the daemon knows closes the connection without an answer (docs/protocol.md).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostrel::ControlProtocol {

// The longest line either side accepts, newline not counted. Readers stop at this many
// bytes without a newline instead of buffering more.
inline constexpr std::size_t maxLineBytes = 64 * 1024;

enum class Call { version, setPolicy, policies };

struct Request {
    std::int64_t id = 0;
    Call call = Call::version;
    std::int64_t fan = 0;  // setPolicy: the fan's index, -1 for every fan
    std::string policy;    // setPolicy: one policy's JSON text

    bool operator==(const Request &) const = default;
};

struct Reply {
    std::int64_t id = 0;
    // version: the daemon's version; setPolicy: nothing on success, else the message;
    // policies: the policies' JSON text.
    std::optional<std::string> text;

    bool operator==(const Reply &) const = default;
};

// The request one line holds (without its newline), or nothing when the line is not a
// JSON object with an integral "id", a known "call" and, for setPolicy, an integral "fan"
// and a string "policy". Other members are ignored. Never throws, whatever the bytes.
std::optional<Request> parseRequest(std::string_view line);
// The reply one line holds, or nothing when it is not an object with an integral "id" and
// a "reply" that is a string or null. Never throws.
std::optional<Reply> parseReply(std::string_view line);

// The line for a request or a reply, newline included. Texts that are not valid UTF-8 are
// repaired (each bad byte becomes U+FFFD), as JSON cannot carry them.
std::string requestLine(const Request &request);
std::string replyLine(const Reply &reply);

// The call's name on the wire: "version", "setPolicy", "policies".
std::string_view callName(Call call);

}  // namespace ostrel::ControlProtocol
