// Fan policies, their errors and their JSON coding.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ostrel/fan_policy.h"
#include "ostrel/policy_coding.h"

namespace {

using namespace ostrel;

constexpr double kInf = std::numeric_limits<double>::infinity();

FanCurve unsortedCurve() {
    FanCurve curve;
    curve.points = {{70, 1000}, {50, 0}};
    return curve;
}

// The message validate() fails with, or "(valid)".
std::string validation(const FanPolicy &policy) {
    try {
        policy.validate();
        return "(valid)";
    } catch (const FanControlError &e) {
        return e.what();
    }
}

// Plain forms show in the daemon's and the CLI's tests; here the edges.
TEST(FanPolicyTest, ValidationAndDescription) {
    struct Case {
        FanPolicy policy;
        std::string validation;
        std::string description;
    } cases[] = {
        {FanPolicy::fixed(0), "(valid)", "fixed 0 rpm"},
        {FanPolicy::fixed(2500.5), "(valid)", "fixed 2500.5 rpm"},
        {FanPolicy::fixed(1e9), "(valid)", "fixed 1000000000 rpm"},
        {FanPolicy::fixed(-1), "invalid fan speed", "fixed -1 rpm"},
        {FanPolicy::fixed(-kInf), "invalid fan speed", "fixed max"},
        {FanPolicy::fixed(NAN), "invalid fan speed", "fixed nan rpm"},
        // A curve policy is as valid as its curve (the curve tests go through the rules).
        {FanPolicy::curve(unsortedCurve()),
         FanControlError::badCurve("70:1000,50:min").description(), "curve 70:1000,50:min (cpu)"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(validation(c.policy), c.validation) << c.description;
        EXPECT_EQ(c.policy.description(), c.description);
    }
}

// Whole and infinite speeds, and reading "nan", are the policy store's file tests; a curve's
// text is the CLI's `curve --json` test.
TEST(PolicyCodingTest, EncodesTheDocumentedFormsRoundTripsAndDecodingIgnoresUnknownMembers) {
    struct Case {
        FanPolicy policy;
        const char *data;
    } documented[] = {
        {FanPolicy(), R"({"auto":{}})"},
        {FanPolicy::fixed(-kInf), R"({"fixed":{"rpm":"-inf"}})"},
        {FanPolicy::fixed(2500.5), R"({"fixed":{"rpm":2500.5}})"},
    };
    for (const Case &c : documented) {
        EXPECT_EQ(PolicyCoding::encode(c.policy), c.data);
        EXPECT_EQ(PolicyCoding::decode(c.data), c.policy) << c.data;
    }
    FanCurve odd({{-5.5, 0}, {72.125, 1234.5}, {1e300, kInf}}, CurveSensor::max);
    for (const FanPolicy &policy :
         {FanPolicy::fixed(0.1 + 0.2), FanPolicy::curve(odd), FanPolicy::curve(unsortedCurve()),
          FanPolicy::curve(FanCurve())}) {
        EXPECT_EQ(PolicyCoding::decode(PolicyCoding::encode(policy)), policy)
            << policy.description();
    }
    EXPECT_EQ(PolicyCoding::encode(FanPolicy::fixed(NAN)), R"({"fixed":{"rpm":"nan"}})");

    EXPECT_EQ(PolicyCoding::decode(R"({"auto":{"x":1}})"), FanPolicy());
    EXPECT_EQ(PolicyCoding::decode(R"({"version":3,"fixed":{"rpm":1.5e3,"unit":"rpm"}})"),
              FanPolicy::fixed(1500));
    FanCurve unsorted = unsortedCurve();
    unsorted.sensor = CurveSensor::gpu;
    EXPECT_EQ(PolicyCoding::decode(
                  R"({"curve":{"_0":{"sensor":"gpu","points":[{"rpm":1000,"temperature":70},)"
                  R"({"temperature":50,"rpm":0,"note":"x"}]}}})"),
              FanPolicy::curve(unsorted));
}

TEST(PolicyCodingTest, DecodingErrorsAreTypedWithClearMessages) {
    struct Case {
        const char *data;
        DecodingError::Kind kind;
        const char *message;
    } cases[] = {
        {R"({"fixed":{"rpm":1500},"auto":{}})", DecodingError::Kind::typeMismatch,
         "Invalid number of keys found, expected one."},
        {"{}", DecodingError::Kind::typeMismatch, "Invalid number of keys found, expected one."},
        {"[]", DecodingError::Kind::typeMismatch, "Expected an object, found an array."},
        {R"({"auto":true})", DecodingError::Kind::typeMismatch,
         "Expected an object at auto, found a boolean."},
        {R"({"fixed":{}})", DecodingError::Kind::keyNotFound, "Missing member \"rpm\" at fixed."},
        {R"({"fixed":{"rpm":"max"}})", DecodingError::Kind::typeMismatch,
         "Expected a number (or \"inf\", \"-inf\", \"nan\") at fixed.rpm, found a string."},
        {R"({"curve":{"_0":{"points":[]}}})", DecodingError::Kind::keyNotFound,
         "Missing member \"sensor\" at curve._0."},
        {R"({"curve":{"_0":{"points":[{"temperature":1,"rpm":2},{"rpm":3}],"sensor":"cpu"}}})",
         DecodingError::Kind::keyNotFound, "Missing member \"temperature\" at curve._0.points[1]."},
        {R"({"curve":{"_0":{"points":[],"sensor":"CPU"}}})", DecodingError::Kind::dataCorrupted,
         "Invalid value \"CPU\" at curve._0.sensor (expected one of cpu, gpu, max)."},
    };
    for (const Case &c : cases) {
        try {
            PolicyCoding::decode(c.data);
            ADD_FAILURE() << c.data << " decoded";
        } catch (const DecodingError &e) {
            EXPECT_EQ(e.kind(), c.kind) << c.data;
            EXPECT_STREQ(e.what(), c.message) << c.data;
        }
    }
}

// The map's text, its round trip and keys such as "01" are the policy store's tests'; here
// what only a map decode says: where in the map a value failed.
TEST(PolicyCodingTest, MapErrorsNameTheFan) {
    EXPECT_THROW(PolicyCoding::decodeMap("[]"), DecodingError);
    EXPECT_THAT([] { PolicyCoding::decodeMap(R"({"0":{"auto":{}},"1":{"fixed":{}}})"); },
                testing::ThrowsMessage<DecodingError>(
                    testing::StrEq("Missing member \"rpm\" at 1.fixed.")));
}

TEST(PolicyCodingTest, FanIndexAcceptsOnlyCanonicalDecimal) {
    EXPECT_EQ(PolicyCoding::fanIndex("0"), 0);
    EXPECT_EQ(PolicyCoding::fanIndex("12"), 12);
    EXPECT_EQ(PolicyCoding::fanIndex("9223372036854775807"), 9223372036854775807);
    for (const char *key :
         {"", "+1", "01", "00", "-0", "-1", " 1", "1 ", "1a", "0x1", "9223372036854775808"}) {
        EXPECT_FALSE(PolicyCoding::fanIndex(key)) << '"' << key << '"';
    }
}

}  // namespace
