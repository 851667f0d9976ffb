// Number text both ways, and the kit's JSON number form.

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <limits>

#include "ostrel/json.h"
#include "ostrel/number_text.h"

namespace {

using namespace ostrel;

constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(NumberTextTest, ShortestDecimalWithoutTrailingPointZero) {
    struct Case {
        double value;
        const char *text;
    } cases[] = {
        {3000, "3000"},
        {0, "0"},
        {-0.0, "-0"},
        {1.0 / 3, "0.3333333333333333"},
        {1e15, "1000000000000000"},
        {0.0001, "0.0001"},
        {1e16, "1e+16"},
        {1.5e-5, "1.5e-05"},
        {kInf, "inf"},
        {-kInf, "-inf"},
        {NAN, "nan"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(numberText(c.value), c.text) << c.value;
    }
}

TEST(NumberTextTest, EveryFiniteTextReadsBackToTheSameValue) {
    const double values[] = {
        72.5,    0.1 + 0.2, 123456.789,          9007199254740993.0,     1e-300,
        1.7e308, -2.5e-7,   0.00012345678901234, 2.2250738585072014e-308};
    for (double value : values) {
        EXPECT_EQ(readNumber(numberText(value)), value) << numberText(value);
    }
    // Subnormal values are written but read as an underflow, like any out-of-range text.
    EXPECT_EQ(numberText(5e-324), "5e-324");
    EXPECT_FALSE(readNumber("5e-324"));
}

TEST(ReadNumberTest, AcceptsWhatStrtodReadsInThePosixLocaleAndNothingElse) {
    for (auto [text, value] : {std::pair{"50", 50.0},
                               {"-7.25", -7.25},
                               {"+3", 3.0},
                               {".5", 0.5},
                               {"5.", 5.0},
                               {"1e3", 1000.0},
                               {"0x1p4", 16.0},
                               {"INF", kInf},
                               {"-infinity", -kInf}}) {
        EXPECT_EQ(readNumber(text), value) << text;
    }
    EXPECT_TRUE(std::isnan(*readNumber("nan")));
    // Nothing else: no blanks around, no junk after, nothing out of range.
    const char *rejected[] = {"",        " 5",  "\t5",  "\n5", "5 ",    "5x",
                              "3000rpm", "1,5", "--5",  "e5",  "1e400", "-1e400",
                              "1e-400",  "0x",  "five", "5e",  "."};
    for (const char *text : rejected) {
        EXPECT_FALSE(readNumber(text)) << '"' << text << '"';
    }
    EXPECT_FALSE(
        readNumber(std::string_view("5\0"
                                    "1",
                                    3)))
        << "an embedded NUL ends the number";
}

TEST(ReadNumberTest, IgnoresTheProcessLocale) {
    // A German locale reads "72,5"; we must keep reading "72.5". Skip when not installed.
    const char *previous = std::setlocale(LC_NUMERIC, nullptr);
    std::string saved = previous ? previous : "C";
    if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
        GTEST_SKIP() << "de_DE.UTF-8 not installed";
    }
    EXPECT_EQ(readNumber("72.5"), 72.5);
    EXPECT_FALSE(readNumber("72,5"));
    EXPECT_EQ(numberText(72.5), "72.5");
    std::setlocale(LC_NUMERIC, saved.c_str());
}

// Whole numbers, fractions and the non-finite strings both ways are the policy coding's
// documented forms (fan_policy_test); here the edges of "whole".
TEST(JsonNumberTest, OnlyWholeNumbersThatFitBecomeIntegers) {
    for (auto [value, text] : {std::pair{-0.0, "-0.0"}, {1e20, "1e+20"}}) {
        EXPECT_EQ(json::number(value).dump(), text);
        EXPECT_EQ(json::toDouble(json::number(value), "x"), value);
    }
}

TEST(JsonParseTest, BadTextIsOneTypedErrorWithAsciiMessage) {
    for (const char *text : {"", "hello", "{", "{\"a\":1,}", "\xff\xfe", "[1e999]"}) {
        try {
            json::parse(text);
            FAIL() << text;
        } catch (const DecodingError &e) {
            EXPECT_EQ(e.kind(), DecodingError::Kind::dataCorrupted);
            std::string message = e.what();
            EXPECT_EQ(message.rfind("The data is not valid JSON: ", 0), 0u) << message;
            for (char c : message) {
                EXPECT_LT(static_cast<unsigned char>(c), 0x80) << message;
            }
        }
    }
}

}  // namespace
