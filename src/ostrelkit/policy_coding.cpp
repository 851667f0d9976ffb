#include "ostrel/policy_coding.h"

#include <charconv>

namespace ostrel::PolicyCoding {

namespace {

constexpr const char *kCaseNames[] = {"auto", "fixed", "curve"};

Json curveJson(const FanCurve &curve) {
    Json points = Json::array();
    for (const CurvePoint &point : curve.points) {
        points.push_back(Json{{"temperature", json::number(point.temperature)},
                              {"rpm", json::number(point.rpm)}});
    }
    return Json{{"points", std::move(points)}, {"sensor", rawValue(curve.sensor)}};
}

FanCurve curveFromJson(const Json &value, const std::string &path) {
    json::object(value, path);
    std::string pointsPath = json::child(path, "points");
    const Json &points = json::array(json::member(value, "points", path), pointsPath);
    FanCurve curve;
    curve.points.reserve(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        std::string pointPath = json::element(pointsPath, i);
        const Json &point = json::object(points[i], pointPath);
        curve.points.emplace_back(json::memberDouble(point, "temperature", pointPath),
                                  json::memberDouble(point, "rpm", pointPath));
    }
    curve.sensor = json::memberCase(value, "sensor", allCurveSensors, path);
    return curve;
}

FanPolicy policyFromJson(const Json &value, const std::string &path) {
    json::object(value, path);
    const Json *found = nullptr;
    std::size_t which = 0;
    int count = 0;
    for (std::size_t i = 0; i < std::size(kCaseNames); ++i) {
        if (const Json *member = json::optionalMember(value, kCaseNames[i])) {
            found = member;
            which = i;
            ++count;
        }
    }
    if (count != 1) {
        throw DecodingError(DecodingError::Kind::typeMismatch,
                            "Invalid number of keys found, expected one.");
    }
    std::string casePath = json::child(path, kCaseNames[which]);
    const Json &payload = json::object(*found, casePath);
    switch (which) {
        case 1:
            return FanPolicy::fixed(json::toDouble(json::member(payload, "rpm", casePath),
                                                   json::child(casePath, "rpm")));
        case 2:
            return FanPolicy::curve(
                curveFromJson(json::member(payload, "_0", casePath), json::child(casePath, "_0")));
        default:
            return FanPolicy::Auto{};  // its contents carry nothing
    }
}

}  // namespace

Json toJson(const FanPolicy &policy) {
    if (const FanPolicy::Fixed *fixed = policy.asFixed()) {
        return Json{{"fixed", Json{{"rpm", json::number(fixed->rpm)}}}};
    }
    if (const FanPolicy::Curve *curve = policy.asCurve()) {
        return Json{{"curve", Json{{"_0", curveJson(curve->curve)}}}};
    }
    return Json{{"auto", Json::object()}};
}

FanPolicy fromJson(const Json &json) {
    return policyFromJson(json, "");
}

std::string encode(const FanPolicy &policy) {
    return toJson(policy).dump();
}

FanPolicy decode(std::string_view data) {
    return fromJson(json::parse(data));
}

std::string encodeMap(const PolicyMap &policies) {
    Json object = Json::object();
    for (const auto &[fan, policy] : policies) {
        object[std::to_string(fan)] = toJson(policy);
    }
    return object.dump();
}

std::map<std::string, FanPolicy> decodeMap(std::string_view data) {
    Json value = json::parse(data);
    json::object(value, "");
    std::map<std::string, FanPolicy> policies;
    for (const auto &[key, policy] : value.items()) {
        policies.emplace(key, policyFromJson(policy, key));
    }
    return policies;
}

std::optional<std::int64_t> fanIndex(std::string_view key) {
    if (key.empty() || (key.size() > 1 && key.front() == '0')) {
        return std::nullopt;
    }
    std::int64_t index = 0;
    auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), index);
    if (error != std::errc() || end != key.data() + key.size() || key.front() == '-') {
        return std::nullopt;
    }
    return index;
}

}  // namespace ostrel::PolicyCoding
