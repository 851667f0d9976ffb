// The control protocol's lines: what a daemon accepts as a request (anything else closes
// the connection), what a client accepts as a reply, and that both directions round-trip.

#include <gtest/gtest.h>

#include "ostrel/control_protocol.h"

namespace {

using namespace ostrel::ControlProtocol;

TEST(ControlProtocolTest, RequestsAndRepliesRoundTrip) {
    const Request requests[] = {
        {1, Call::version, 0, ""},
        {-7, Call::setPolicy, -1, R"({"fixed":{"rpm":"inf"}})"},
        {INT64_MAX, Call::policies, 0, ""},
    };
    for (const Request &request : requests) {
        EXPECT_EQ(parseRequest(requestLine(request)), request) << requestLine(request);
    }
    EXPECT_EQ(requestLine(requests[0]), "{\"id\":1,\"call\":\"version\"}\n");
    // Bytes JSON cannot carry are repaired (other replies round-trip in helper_client_test).
    EXPECT_EQ(parseReply(replyLine({4, std::string("bad \xff byte")}))->text, "bad \uFFFD byte");
}

TEST(ControlProtocolTest, LinesThatAreNotRequestsAreRefused) {
    const std::string oversized =
        R"({"id":1,"call":"version","pad":")" + std::string(maxLineBytes, 'x') + "\"}";
    const std::string refused[] = {
        "",
        "[1,2]",
        R"({"call":"version"})",
        R"({"id":"1","call":"version"})",
        R"({"id":1.5,"call":"version"})",
        R"({"id":18446744073709551615,"call":"version"})",
        R"({"id":1,"call":"reboot"})",
        R"({"id":1,"call":7})",
        R"({"id":1,"call":"setPolicy","policy":"{}"})",
        R"({"id":1,"call":"setPolicy","fan":"0","policy":"{}"})",
        R"({"id":1,"call":"setPolicy","fan":0,"policy":{"auto":{}}})",
        "{\"id\":1,\"call\":\"version\",\"x\":\"\xc3\x28\"}",
        R"({"id":1,"call":"version"} {"id":2,"call":"version"})",
        oversized,
    };
    for (const std::string &line : refused) {
        EXPECT_FALSE(parseRequest(line)) << line.substr(0, 80);
    }
    // Unknown members are the sender's business.
    EXPECT_TRUE(parseRequest(R"({"call":"policies","id":0,"trace":[1,{}]})"));
    for (const char *line : {R"({"id":1})", R"({"id":1,"reply":5})", R"({"reply":"x"})"}) {
        EXPECT_FALSE(parseReply(line)) << line;
    }
}

}  // namespace
