// Fan curves: a piecewise-linear map from a temperature to a fan speed, with the text form
// users type ("50:min,70:3000,85:max"), validation, evaluation and three presets.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel {

// The temperature that drives a curve: the hottest CPU reading, the hottest GPU reading, or
// the snapshot's hottest temperature (Snapshot::temperature says exactly how).
enum class CurveSensor { cpu, gpu, max };

inline constexpr std::array<CurveSensor, 3> allCurveSensors = {CurveSensor::cpu, CurveSensor::gpu,
                                                               CurveSensor::max};

// "cpu", "gpu", "max": the text in curve descriptions and in JSON.
std::string_view rawValue(CurveSensor sensor);
// The sensor with that exact text, or nothing.
std::optional<CurveSensor> curveSensorFromRaw(std::string_view text);

// One point of a curve. Two speeds are sentinels resolved against the fan's own limits when
// the curve is evaluated: +infinity is the fan's maximum ("max") and 0 its minimum ("min"),
// since evaluation raises every speed to the minimum anyway.
struct CurvePoint {
    double temperature = 0;  // degrees Celsius
    double rpm = 0;

    CurvePoint() = default;
    CurvePoint(double temperature, double rpm) : temperature(temperature), rpm(rpm) {}

    bool operator==(const CurvePoint &) const = default;
};

// The speed a fan with limits `lo` and `hi` is given for a requested `rpm`: `hi` for an
// infinite request, otherwise the request raised to `lo` (NaN counts as below) and then
// capped at `hi`. Raising comes first, so impossible limits (lo above hi) settle on hi.
// Curves, the fan writer and the policy engine all resolve speeds this way.
double resolveSpeed(double rpm, double lo, double hi) noexcept;

// A curve. Curves made here (both constructors, the presets) hold their points in ascending
// temperature order; a curve decoded from JSON keeps the stored order, which validate()
// rejects unless strictly ascending. Both members may be reassigned; assigning `points`
// does not sort them. A plain value: copied into every policy that uses it.
struct FanCurve {
    std::vector<CurvePoint> points;
    CurveSensor sensor = CurveSensor::cpu;

    FanCurve() = default;
    // Stores the points sorted by ascending temperature (a stable sort, so points with equal
    // temperatures keep their order). Does not validate; cannot fail.
    FanCurve(std::vector<CurvePoint> points, CurveSensor sensor);
    // Parses the text form ("50:min, 70:3000, 85°C:max"), sorts and validates. Throws
    // FanControlError::badCurve naming the offending item, or the whole curve's text when
    // validation fails.
    FanCurve(std::string_view parsing, CurveSensor sensor);

    // Throws FanControlError::badCurve: "empty" for no points, otherwise the curve's
    // pointsText() when a temperature is not finite, the temperatures are not strictly
    // ascending, or a speed is negative or NaN. Returns normally for a valid curve.
    void validate() const;

    // The speed to command at temperature `at` for a fan whose limits are `min` and `max`:
    // interpolates linearly between the resolved speeds of the surrounding points and clamps
    // to the end points outside them. A point's speed resolves to `max` when infinite,
    // otherwise it is raised to `min` and then capped at `max` (so `min` > `max` gives
    // `max`). An empty curve gives `min`. Never fails, never allocates.
    double rpm(double at, double min, double max) const noexcept;

    // "50:min,70:3500,85:max"; "" for no points.
    std::string pointsText() const;
    // pointsText() and the sensor: "50:min,70:3500,85:max (cpu)".
    std::string description() const;

    // The built-in curves, made once on first use and shared read-only by every thread.
    static const FanCurve &quiet();        // 60:min,80:3500,92:max (cpu)
    static const FanCurve &balanced();     // 50:min,70:3500,85:max (cpu)
    static const FanCurve &performance();  // 40:2500,60:4500,75:max (cpu)
    // The preset with that name ("quiet", "balanced", "performance"), or nullptr.
    static const FanCurve *preset(std::string_view name);

    bool operator==(const FanCurve &) const = default;
};

}  // namespace ostrel
