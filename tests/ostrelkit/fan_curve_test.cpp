// Fan curves: the text form, validation, evaluation and the presets.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ostrel/fan_curve.h"
#include "ostrel/fan_policy.h"

namespace {

using namespace ostrel;

constexpr double kInf = std::numeric_limits<double>::infinity();
const std::string kHint = "' (expected TEMP:RPM|min|max, e.g. 50:min,70:3000,85:max)";

// The points text a parse gives, or "bad " and the badCurve text it fails with.
std::string parsed(std::string_view text) {
    try {
        return FanCurve(text, CurveSensor::cpu).pointsText();
    } catch (const FanControlError &e) {
        EXPECT_EQ(e.kind(), FanControlError::Kind::badCurve);
        EXPECT_EQ(e.what(), "invalid curve point '" + e.text() + kHint);
        return "bad " + e.text();
    }
}

std::string validateFailure(const FanCurve &curve) {
    try {
        curve.validate();
        return "(valid)";
    } catch (const FanControlError &e) {
        return e.text();
    }
}

TEST(FanCurveParseTest, AcceptedSpellingsAndFailuresThatNameTheItemAsWritten) {
    EXPECT_EQ(FanCurve("50:min,70:3000,85:max", CurveSensor::gpu),
              FanCurve({{50, 0}, {70, 3000}, {85, kInf}}, CurveSensor::gpu));
    struct Case {
        const char *text;
        const char *result;
    } cases[] = {
        {"85:MAX, 50:Min", "50:min,85:max"},
        {"70::3000", "70:3000"},
        {"50°C:min", "50:min"},
        {"50C:min", "50:min"},
        {"5°0C°:min", "50:min"},
        {" 50 :\t2500.5 ", "50:2500.5"},
        {"\xC2\xA0"
         "50\xE3\x80\x80:mAx",
         "50:max"},  // no-break and ideographic spaces
        {"-10:0", "-10:min"},
        {"72.25:-0", "72.25:min"},
        {"0x10:1e3", "16:1000"},
        {"50:min,,85:max", "bad "},
        {"", "bad "},
        {"50:min,", "bad "},
        {"70", "bad 70"},
        {"70:1:2", "bad 70:1:2"},
        {"50:min, 60 : 3000rpm ,85:max", "bad  60 : 3000rpm "},
        {"50c:min", "bad 50c:min"},
        {"50:-1", "bad 50:-1"},
        {"50:inf", "bad 50:inf"},
        {"50:nan", "bad 50:nan"},
        {"inf:min", "bad inf:min"},
        {"50:\n3000", "bad 50:\n3000"},  // line breaks are not blanks
        {"50: ", "bad 50: "},
        {"50:minimum", "bad 50:minimum"},
        // A curve that fails validation is named sorted; the first bad item wins.
        {"85:max,50:min,50:3000", "bad 50:min,50:3000,85:max"},
        {"x:1,y:2", "bad x:1"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(parsed(c.text), c.result) << '"' << c.text << '"';
    }
}

TEST(FanCurveTest, ValidateChecksOrderFinitenessAndSpeed) {
    // The sorting constructor is stable and does not validate.
    FanCurve sorted({{70, 1}, {50, 2}, {70, 3}, {50, 4}}, CurveSensor::max);
    EXPECT_EQ(sorted.points, (std::vector<CurvePoint>{{50, 2}, {50, 4}, {70, 1}, {70, 3}}));
    EXPECT_EQ(validateFailure(sorted), "50:2,50:4,70:1,70:3");
    auto curve = [](std::vector<CurvePoint> points) {
        FanCurve result;
        result.points = std::move(points);  // kept as given, like a decoded curve
        return result;
    };
    EXPECT_EQ(validateFailure(curve({})), "empty");
    EXPECT_EQ(validateFailure(curve({{70, 1000}, {50, 0}})), "70:1000,50:min");
    EXPECT_EQ(validateFailure(curve({{50, -1}})), "50:-1");
    EXPECT_EQ(validateFailure(curve({{50, NAN}})), "50:nan");
    EXPECT_EQ(validateFailure(curve({{NAN, 0}})), "nan:min");
    EXPECT_EQ(validateFailure(curve({{-kInf, 0}})), "-inf:min");
    EXPECT_EQ(validateFailure(curve({{50, -kInf}})), "50:-inf");
    EXPECT_EQ(validateFailure(curve({{50, kInf}})), "(valid)");
    EXPECT_EQ(validateFailure(curve({{-1e300, 0}, {1e300, 1e300}})), "(valid)");
}

TEST(FanCurveTest, EvaluationInterpolatesBetweenResolvedSpeedsRaisedThenCappedByTheLimits) {
    FanCurve curve("50:min,70:3000,85:max", CurveSensor::cpu);
    struct Case {
        double at, expected;
    } cases[] = {
        {40, 1200}, {50, 1200}, {60, 2100},    {70, 3000},   {80, 5000},
        {85, 6000}, {90, 6000}, {-kInf, 1200}, {kInf, 6000}, {NAN, 6000},
    };
    for (const Case &c : cases) {
        EXPECT_DOUBLE_EQ(curve.rpm(c.at, 1200, 6000), c.expected) << c.at;
    }

    // Limits resolve by raising first, then capping.
    EXPECT_EQ(FanCurve({{50, 500}}, CurveSensor::cpu).rpm(50, 1200, 6000), 1200);
    EXPECT_EQ(FanCurve({{50, 9000}}, CurveSensor::cpu).rpm(50, 1200, 6000), 6000);
    for (double at : {0.0, 55.0, 60.0, 75.0, 100.0}) {
        EXPECT_EQ(curve.rpm(at, 3000, 2000), 2000) << at;
    }
    curve.points = {{50, NAN}};
    EXPECT_EQ(curve.rpm(50, 1200, 6000), 1200);
    EXPECT_EQ(FanCurve().rpm(50, 1200, 6000), 1200);

    // Spans narrower than a ten-thousandth of a degree are widened: 0.000005 over a span
    // widened to 0.0001 is 5% of the way, not half.
    curve.points = {{50, 1000}, {50.00001, 2000}};
    EXPECT_NEAR(curve.rpm(50.000005, 0, 6000), 1050, 1e-6);
    curve.points = {{50, 1000}, {50, 2000}, {60, 3000}};  // a decoded, invalid curve
    EXPECT_EQ(curve.rpm(50, 0, 6000), 1000);
    EXPECT_EQ(curve.rpm(55, 0, 6000), 2500);
}

// The presets are constants; what matters is that a name finds one and that each is a
// curve the parser and the validator accept as it stands.
TEST(FanCurveTest, PresetsAreFoundByExactNameAndAreValidCurves) {
    EXPECT_EQ(FanCurve::preset("balanced"), &FanCurve::balanced());
    EXPECT_EQ(FanCurve::preset("Balanced"), nullptr);
    for (const FanCurve *preset :
         {&FanCurve::quiet(), &FanCurve::balanced(), &FanCurve::performance()}) {
        EXPECT_NO_THROW(preset->validate());
        EXPECT_EQ(FanCurve(preset->pointsText(), CurveSensor::cpu), *preset);
    }
}

}  // namespace
