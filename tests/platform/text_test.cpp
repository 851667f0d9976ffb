// Text helpers shared by every parser.

#include <gtest/gtest.h>

#include "ostrel/platform/text.h"

namespace {

using ostrel::text::printable;
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

TEST(Printable, EscapesEveryControlCharacterAndTheBackslash) {
    EXPECT_EQ(printable("Left side \u00b0C"), "Left side \u00b0C");
    EXPECT_EQ(printable("\x1b]0;owned\x07x\ny\x7f"), "\\x1b]0;owned\\x07x\\x0ay\\x7f");
    EXPECT_EQ(printable("a\u009b2Jb\u00a0"), "a\\u009b2Jb\u00a0") << "C1 escaped, U+00A0 kept";
    EXPECT_EQ(printable("C:\\x1b"), "C:\\\\x1b") << "a literal backslash stays distinguishable";
    EXPECT_EQ(printable("\xC2"), "\uFFFD");
}

}  // namespace
