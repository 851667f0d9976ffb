#include "ostrel/fan_policy.h"

#include <cmath>

#include "ostrel/number_text.h"

namespace ostrel {

namespace {

std::string describe(FanControlError::Kind kind, const std::string &text, std::int64_t fan) {
    switch (kind) {
        case FanControlError::Kind::badCurve:
            return "invalid curve point '" + text +
                   "' (expected TEMP:RPM|min|max, e.g. 50:min,70:3000,85:max)";
        case FanControlError::Kind::noSuchFan:
            return "no fan with id " + std::to_string(fan);
        case FanControlError::Kind::helperUnavailable:
            return "helper unavailable: " + text + "\nInstall it with: ostrel helper install";
        case FanControlError::Kind::helper:
            break;
    }
    return text;
}

}  // namespace

FanControlError::FanControlError(Kind kind, std::string text, std::int64_t fan)
    : kind_(kind), text_(std::move(text)), fan_(fan), description_(describe(kind_, text_, fan_)) {}

void FanPolicy::validate() const {
    if (const Fixed *fixed = asFixed()) {
        if (!(fixed->rpm >= 0)) {  // negative, -infinity and NaN
            throw FanControlError::helper("invalid fan speed");
        }
    } else if (const Curve *curve = asCurve()) {
        curve->curve.validate();
    }
}

std::string FanPolicy::description() const {
    if (const Fixed *fixed = asFixed()) {
        if (std::isinf(fixed->rpm)) {
            return "fixed max";
        }
        return "fixed " + numberText(fixed->rpm) + " rpm";
    }
    if (const Curve *curve = asCurve()) {
        return "curve " + curve->curve.description();
    }
    return "auto";
}

}  // namespace ostrel
