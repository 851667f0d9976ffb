// `ostrel curve`: try a fan curve before applying it.

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <CLI/CLI.hpp>

#include <cmath>
#include <ostream>

#include "commands.h"
#include "ostrel/fan_policy.h"
#include "ostrel/number_text.h"
#include "ostrel/policy_coding.h"

namespace ostrel::cli {

namespace {

// Fan limits for `ostrel curve` when none are given: a typical notebook fan.
constexpr double kDefaultMinRpm = 1200;
constexpr double kDefaultMaxRpm = 6000;

// A number option read the way curve text reads numbers; a usage error when it does not
// read as a finite number.
double numberOption(const std::string &option, const std::string &text) {
    std::optional<double> value = readNumber(text);
    if (!value || !std::isfinite(*value)) {
        throw CLI::ValidationError(option, "'" + text + "' is not a number");
    }
    return *value;
}

}  // namespace

// Parses and shows a curve, and what it commands, without touching a fan.
void curveCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    // CLI11 has already checked the sensor against the three names.
    CurveSensor sensor = *curveSensorFromRaw(options.sensor.value_or("cpu"));
    double lo = options.min ? numberOption("--min", *options.min) : kDefaultMinRpm;
    double hi = options.max ? numberOption("--max", *options.max) : kDefaultMaxRpm;
    std::vector<double> temperatures;
    for (const std::string &text : options.at) {
        temperatures.push_back(numberOption("--at", text));
    }
    FanCurve curve = curveNamed(options.curveText, sensor);
    if (options.json) {
        out << PolicyCoding::encode(FanPolicy::curve(curve)) << '\n';
        return;
    }
    out << curve.description() << '\n';
    for (double temperature : temperatures) {
        // Fans are driven in whole rpm; the fraction of an interpolated speed is noise.
        fmt::print(out, "{} \u00B0C: {} rpm\n", numberText(temperature),
                   numberText(std::round(curve.rpm(temperature, lo, hi))));
    }
}

}  // namespace ostrel::cli
