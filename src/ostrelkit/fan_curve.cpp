#include "ostrel/fan_curve.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "ostrel/fan_policy.h"
#include "ostrel/number_text.h"
#include "ostrel/platform/text.h"

namespace ostrel {

namespace {

constexpr std::array<std::string_view, 3> kSensorTexts = {"cpu", "gpu", "max"};

constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string speedText(double rpm) {
    if (rpm == kInfinity) {
        return "max";
    }
    if (rpm == 0) {
        return "min";
    }
    return numberText(rpm);
}

bool equalsIgnoringAsciiCase(std::string_view text, std::string_view lower) {
    return std::equal(text.begin(), text.end(), lower.begin(), lower.end(),
                      [](char a, char b) { return text::asciiLower(a) == b; });
}

// The temperature of an item: every "°" and every upper-case "C" are unit decoration
// ("50°C", "50C"); a lower-case "c" is not.
std::optional<double> readTemperature(std::string_view piece) {
    std::string text;
    text.reserve(piece.size());
    for (std::size_t i = 0; i < piece.size(); ++i) {
        if (piece.substr(i).starts_with("\xC2\xB0")) {
            ++i;
            continue;
        }
        if (piece[i] != 'C') {
            text.push_back(piece[i]);
        }
    }
    std::optional<double> value = readNumber(text);
    if (!value || !std::isfinite(*value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> readSpeed(std::string_view piece) {
    if (equalsIgnoringAsciiCase(piece, "max")) {
        return kInfinity;
    }
    if (equalsIgnoringAsciiCase(piece, "min")) {
        return 0.0;
    }
    std::optional<double> value = readNumber(piece);
    if (!value || !std::isfinite(*value) || *value < 0) {
        return std::nullopt;
    }
    return value;
}

// One comma-separated item: "TEMP:SPEED", colons in a row counting as one, blanks around
// either piece ignored.
std::optional<CurvePoint> parsePoint(std::string_view item) {
    std::string_view pieces[2];
    std::size_t count = 0;
    std::size_t start = 0;
    while (start <= item.size()) {
        std::size_t colon = std::min(item.find(':', start), item.size());
        if (colon > start) {
            if (count == 2) {
                return std::nullopt;
            }
            pieces[count++] = text::trimBlanks(item.substr(start, colon - start));
        }
        start = colon + 1;
    }
    if (count != 2) {
        return std::nullopt;
    }
    std::optional<double> temperature = readTemperature(pieces[0]);
    std::optional<double> rpm = temperature ? readSpeed(pieces[1]) : std::nullopt;
    if (!rpm) {
        return std::nullopt;
    }
    return CurvePoint(*temperature, *rpm);
}

// The comma-separated items in input order (empty items included), each parsed; the first
// bad item fails the whole text.
std::vector<CurvePoint> parsePoints(std::string_view text) {
    std::vector<CurvePoint> points;
    std::size_t start = 0;
    while (true) {
        std::size_t comma = std::min(text.find(',', start), text.size());
        std::string_view item = text.substr(start, comma - start);
        std::optional<CurvePoint> point = parsePoint(item);
        if (!point) {
            throw FanControlError::badCurve(std::string(item));
        }
        points.push_back(*point);
        if (comma == text.size()) {
            break;
        }
        start = comma + 1;
    }
    // There is always at least one item, so no text gets here without a point; an empty
    // text fails above as its own (empty) item, which is the whole input.
    return points;
}

}  // namespace

double resolveSpeed(double rpm, double lo, double hi) noexcept {
    if (std::isinf(rpm)) {
        return hi;
    }
    double raised = (rpm < lo || std::isnan(rpm)) ? lo : rpm;
    return raised < hi ? raised : hi;
}

std::string_view rawValue(CurveSensor sensor) {
    return kSensorTexts[static_cast<std::size_t>(sensor)];
}

std::optional<CurveSensor> curveSensorFromRaw(std::string_view text) {
    for (CurveSensor sensor : allCurveSensors) {
        if (rawValue(sensor) == text) {
            return sensor;
        }
    }
    return std::nullopt;
}

FanCurve::FanCurve(std::vector<CurvePoint> points, CurveSensor sensor)
    : points(std::move(points)), sensor(sensor) {
    std::stable_sort(
        this->points.begin(), this->points.end(),
        [](const CurvePoint &a, const CurvePoint &b) { return a.temperature < b.temperature; });
}

FanCurve::FanCurve(std::string_view parsing, CurveSensor sensor)
    : FanCurve(parsePoints(parsing), sensor) {
    validate();
}

void FanCurve::validate() const {
    if (points.empty()) {
        throw FanControlError::badCurve("empty");
    }
    double previous = -kInfinity;
    for (const CurvePoint &point : points) {
        // Written as negations so that NaN fails every test.
        if (!std::isfinite(point.temperature) || !(point.temperature > previous) ||
            !(point.rpm >= 0)) {
            throw FanControlError::badCurve(pointsText());
        }
        previous = point.temperature;
    }
}

double FanCurve::rpm(double at, double min, double max) const noexcept {
    if (points.empty()) {
        return min;
    }
    const CurvePoint &first = points.front();
    const CurvePoint &last = points.back();
    if (at <= first.temperature) {
        return resolveSpeed(first.rpm, min, max);
    }
    if (last.temperature <= at) {
        return resolveSpeed(last.rpm, min, max);
    }
    for (std::size_t i = 1; i < points.size(); ++i) {
        const CurvePoint &b = points[i];
        if (b.temperature >= at) {
            const CurvePoint &a = points[i - 1];
            double span = std::max(b.temperature - a.temperature, 0.0001);
            double ra = resolveSpeed(a.rpm, min, max);
            double rb = resolveSpeed(b.rpm, min, max);
            return ra + ((at - a.temperature) / span) * (rb - ra);
        }
    }
    return resolveSpeed(last.rpm, min, max);  // `at` is NaN
}

std::string FanCurve::pointsText() const {
    std::string text;
    for (const CurvePoint &point : points) {
        if (!text.empty()) {
            text += ',';
        }
        text += numberText(point.temperature);
        text += ':';
        text += speedText(point.rpm);
    }
    return text;
}

std::string FanCurve::description() const {
    return pointsText() + " (" + std::string(rawValue(sensor)) + ")";
}

const FanCurve &FanCurve::quiet() {
    static const FanCurve curve({{60, 0}, {80, 3500}, {92, kInfinity}}, CurveSensor::cpu);
    return curve;
}

const FanCurve &FanCurve::balanced() {
    static const FanCurve curve({{50, 0}, {70, 3500}, {85, kInfinity}}, CurveSensor::cpu);
    return curve;
}

const FanCurve &FanCurve::performance() {
    static const FanCurve curve({{40, 2500}, {60, 4500}, {75, kInfinity}}, CurveSensor::cpu);
    return curve;
}

const FanCurve *FanCurve::preset(std::string_view name) {
    if (name == "quiet") {
        return &quiet();
    }
    if (name == "balanced") {
        return &balanced();
    }
    if (name == "performance") {
        return &performance();
    }
    return nullptr;
}

}  // namespace ostrel
