#include "ostrel/control_protocol.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "ostrel/json.h"

namespace ostrel::ControlProtocol {

namespace {

constexpr std::array<std::pair<Call, std::string_view>, 3> kCalls = {{
    {Call::version, "version"},
    {Call::setPolicy, "setPolicy"},
    {Call::policies, "policies"},
}};

// A parsed line that is an object, or a discarded value. Peers send anything, so parsing
// must not throw; nlohmann's non-throwing parse also rejects invalid UTF-8.
Json parseObject(std::string_view line) {
    if (line.size() > maxLineBytes) {
        return Json(Json::value_t::discarded);
    }
    Json value = Json::parse(line, nullptr, false);
    return value.is_object() ? value : Json(Json::value_t::discarded);
}

std::optional<std::int64_t> integer(const Json &object, const char *name) {
    auto it = object.find(name);
    if (it == object.end()) {
        return std::nullopt;
    }
    if (it->is_number_unsigned()) {  // 0 and up arrive unsigned; keep those that fit
        auto value = it->get<std::uint64_t>();
        return value <= static_cast<std::uint64_t>(INT64_MAX)
                   ? std::optional<std::int64_t>(static_cast<std::int64_t>(value))
                   : std::nullopt;
    }
    if (it->is_number_integer()) {
        return it->get<std::int64_t>();
    }
    return std::nullopt;
}

const std::string *string(const Json &object, const char *name) {
    auto it = object.find(name);
    return it != object.end() && it->is_string() ? it->get_ptr<const std::string *>() : nullptr;
}

std::string line(const Json &value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string_view callName(Call call) {
    for (const auto &[known, name] : kCalls) {
        if (known == call) {
            return name;
        }
    }
    return {};
}

std::optional<Request> parseRequest(std::string_view text) {
    Json object = parseObject(text);
    if (object.is_discarded()) {
        return std::nullopt;
    }
    std::optional<std::int64_t> id = integer(object, "id");
    const std::string *name = string(object, "call");
    if (!id || name == nullptr) {
        return std::nullopt;
    }
    Request request;
    request.id = *id;
    auto known = std::find_if(kCalls.begin(), kCalls.end(),
                              [&](const auto &entry) { return entry.second == *name; });
    if (known == kCalls.end()) {
        return std::nullopt;
    }
    request.call = known->first;
    if (request.call == Call::setPolicy) {
        std::optional<std::int64_t> fan = integer(object, "fan");
        const std::string *policy = string(object, "policy");
        if (!fan || policy == nullptr) {
            return std::nullopt;
        }
        request.fan = *fan;
        request.policy = *policy;
    }
    return request;
}

std::optional<Reply> parseReply(std::string_view text) {
    Json object = parseObject(text);
    if (object.is_discarded()) {
        return std::nullopt;
    }
    std::optional<std::int64_t> id = integer(object, "id");
    auto reply = object.find("reply");
    if (!id || reply == object.end() || !(reply->is_string() || reply->is_null())) {
        return std::nullopt;
    }
    Reply result{*id, std::nullopt};
    if (reply->is_string()) {
        result.text = reply->get<std::string>();
    }
    return result;
}

std::string requestLine(const Request &request) {
    Json value{{"id", request.id}, {"call", callName(request.call)}};
    if (request.call == Call::setPolicy) {
        value["fan"] = request.fan;
        value["policy"] = request.policy;
    }
    return line(value);
}

std::string replyLine(const Reply &reply) {
    Json value{{"id", reply.id}, {"reply", nullptr}};
    if (reply.text) {
        value["reply"] = *reply.text;
    }
    return line(value);
}

}  // namespace ostrel::ControlProtocol
