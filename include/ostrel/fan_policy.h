// Fan policies (how one fan is driven) and FanControlError, the error type of fan control
// and of the client side of the helper link.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <variant>

#include "ostrel/fan_curve.h"

namespace ostrel {

// The typed error of fan control; what() is the message shown to users.
class FanControlError : public std::exception {
  public:
    enum class Kind { badCurve, noSuchFan, helperUnavailable, helper };

    // "invalid curve point '<text>' (expected TEMP:RPM|min|max, e.g. 50:min,70:3000,85:max)"
    static FanControlError badCurve(std::string text) {
        return {Kind::badCurve, std::move(text), 0};
    }
    // "no fan with id <fan>"
    static FanControlError noSuchFan(std::int64_t fan) { return {Kind::noSuchFan, {}, fan}; }
    // "helper unavailable: <reason>\nInstall it with: ostrel helper install"
    static FanControlError helperUnavailable(std::string reason) {
        return {Kind::helperUnavailable, std::move(reason), 0};
    }
    // The text itself.
    static FanControlError helper(std::string text) { return {Kind::helper, std::move(text), 0}; }

    Kind kind() const { return kind_; }
    // The payload of badCurve, helperUnavailable and helper; empty for noSuchFan.
    const std::string &text() const { return text_; }
    // The payload of noSuchFan; 0 otherwise.
    std::int64_t fan() const { return fan_; }
    const char *what() const noexcept override { return description_.c_str(); }
    const std::string &description() const { return description_; }

    // Same case and payload.
    bool operator==(const FanControlError &other) const {
        return kind_ == other.kind_ && text_ == other.text_ && fan_ == other.fan_;
    }

  private:
    FanControlError(Kind kind, std::string text, std::int64_t fan);

    Kind kind_;
    std::string text_;
    std::int64_t fan_;
    std::string description_;
};

// How one fan is driven: by the firmware (Auto), at a fixed speed (Fixed; +infinity is the
// fan's maximum), or along a curve (Curve). A plain value.
struct FanPolicy {
    struct Auto {
        bool operator==(const Auto &) const = default;
    };
    struct Fixed {
        double rpm = 0;
        bool operator==(const Fixed &) const = default;
    };
    struct Curve {
        FanCurve curve;
        bool operator==(const Curve &) const = default;
    };

    std::variant<Auto, Fixed, Curve> value;

    FanPolicy() = default;  // auto
    FanPolicy(Auto automatic) : value(automatic) {}
    FanPolicy(Fixed fixed) : value(fixed) {}
    FanPolicy(Curve curve) : value(std::move(curve)) {}

    static FanPolicy fixed(double rpm) { return Fixed{rpm}; }
    static FanPolicy curve(FanCurve curve) { return Curve{std::move(curve)}; }

    bool isAuto() const { return std::holds_alternative<Auto>(value); }
    // The payloads, or nullptr for another case.
    const Fixed *asFixed() const { return std::get_if<Fixed>(&value); }
    const Curve *asCurve() const { return std::get_if<Curve>(&value); }

    // Returns normally when the policy can be applied. Throws FanControlError: helper
    // "invalid fan speed" for a fixed speed that is negative or NaN (+infinity is fine; there
    // is no upper bound), or the curve's own badCurve.
    void validate() const;

    // One line for logs: "auto", "fixed 2000 rpm", "fixed max", "curve 50:min,70:3500,85:max
    // (cpu)".
    std::string description() const;

    // Same case and equal payload (speeds compared as numbers, so NaN never equals).
    bool operator==(const FanPolicy &) const = default;
};

// The policies of a machine's fans by zero-based fan index, as the daemon keeps, stores and
// reports them (fans on auto are not listed).
using PolicyMap = std::map<std::int64_t, FanPolicy>;

}  // namespace ostrel
