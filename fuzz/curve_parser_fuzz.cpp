// Any bytes as curve text: parsing either fails with badCurve or gives a valid curve whose
// text form parses back to the same curve and whose speeds stay within the fan's limits.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "fuzz_check.h"
#include "ostrel/fan_curve.h"
#include "ostrel/fan_policy.h"

using ostrel::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    using namespace ostrel;
    std::string_view text(reinterpret_cast<const char *>(data), size);
    FanCurve curve;
    try {
        curve = FanCurve(text, CurveSensor::gpu);
    } catch (const FanControlError &e) {
        check(e.kind() == FanControlError::Kind::badCurve);
        return 0;
    }
    curve.validate();  // must not throw: an exception escaping here is a finding
    check(FanCurve(curve.pointsText(), curve.sensor) == curve);
    check(!curve.description().empty());

    constexpr double lo = 1200, hi = 6000;
    const double probes[] = {
        -std::numeric_limits<double>::infinity(),
        curve.points.front().temperature,
        (curve.points.front().temperature + curve.points.back().temperature) / 2,
        curve.points.back().temperature,
        std::numeric_limits<double>::quiet_NaN(),
        55};
    for (double at : probes) {
        double rpm = curve.rpm(at, lo, hi);
        check(rpm >= lo * (1 - 1e-12) && rpm <= hi * (1 + 1e-12));
    }
    return 0;
}
