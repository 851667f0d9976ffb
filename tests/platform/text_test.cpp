// Text helpers shared by every parser.

#include <gtest/gtest.h>

#include "ostrel/platform/text.h"

namespace {

using ostrel::text::utf8Repaired;

TEST(Utf8Repaired, KeepsValidTextAndReplacesEachBadByte) {
    EXPECT_EQ(utf8Repaired("Left side \u00b0C \u20ac \U0001F600"),
              "Left side \u00b0C \u20ac \U0001F600");
    const std::string r = "\uFFFD";
    EXPECT_EQ(utf8Repaired("a\x80z"), "a" + r + "z");            // stray continuation
    EXPECT_EQ(utf8Repaired("a\xC3"), "a" + r);                   // truncated
    EXPECT_EQ(utf8Repaired("\xC0\xAF"), r + r);                  // overlong '/'
    EXPECT_EQ(utf8Repaired("\xED\xA0\x80"), r + r + r);          // a surrogate
    EXPECT_EQ(utf8Repaired("\xF4\x90\x80\x80"), r + r + r + r);  // above U+10FFFF
    EXPECT_EQ(utf8Repaired(std::string("a\0b", 3)), std::string("a\0b", 3));
}

}  // namespace
