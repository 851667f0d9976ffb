// The kit's SMC layer: codes, values, errors and the connection's operations.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ostrel/smc.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using test::errorOf;
using vsmc::Machine;

SMCValue value(const char *type, std::vector<std::uint8_t> bytes) {
    return {FourCC("TEST"), FourCC(type), std::move(bytes)};
}

TEST(FourCCTest, TextIsPaddedCutAndShownPrintable) {
    EXPECT_EQ(FourCC("").rawValue, 0x20202020u);
    EXPECT_EQ(FourCC("ABCDE"), FourCC("ABCD"));
    EXPECT_EQ(FourCC("ab").description(), "ab  ");
    EXPECT_EQ(FourCC(0x7F414243u).description(), "?ABC");
    EXPECT_EQ(FourCC(0x00000041u).description(), "???A");
}

TEST(SMCValueTest, DisplayPicksNumberTextOrBytes) {
    EXPECT_EQ(value("si8 ", {0xFD}).display(), "-3");
    EXPECT_EQ(value("flt ", {0x00, 0x00, 0x35, 0x42}).display(), "45.250");
    EXPECT_EQ(value("ch8*", {0, 0, 0, 0}).display(), "[00 00 00 00]");
    EXPECT_EQ(value("{fds", {'A', 0x01, 'B', 0}).display(), "\"AB\"");
    EXPECT_EQ(value("zzzz", {0x01, 0x02}).display(), "[01 02]");
    EXPECT_EQ(value("zzzz", {}).display(), "[]");
    EXPECT_EQ(value("zzzz", {0x00, 0x1F, 0xA0}).hex(), "00 1f a0");
    // 1e15 is whole but too large for integer text.
    EXPECT_EQ(value("ui64", {0x00, 0x03, 0x8D, 0x7E, 0xA4, 0xC6, 0x80, 0x00}).display(),
              "1000000000000000.000");
}

// The byte rules are the channel codec's (tests/csmc/codec_test.cpp); here only what the
// kit adds: a refusal is an unsupportedType error.
TEST(SMCCodecTest, EncodeThrowsUnsupportedTypeWhereTheCodecRefuses) {
    for (auto [type, size] :
         {std::pair<const char *, std::size_t>{"ui8 ", 0}, {"ui8 ", 33}, {"ioft", 8}}) {
        EXPECT_THAT([&] { SMCCodec::encode(1, type, size); },
                    testing::Throws<SMCError>(
                        testing::Eq(SMCError::unsupportedType(FourCC::unknown, type))))
            << type << " " << size;
    }
}

TEST(SMCErrorTest, MessagesNameKeysTypesAndCodesWithTheirDetail) {
    EXPECT_STREQ(SMCError::fromStatus(-5, "RPlt", "ch8*").what(),
                 "SMC key 'RPlt': unsupported type 'ch8*'");
    EXPECT_STREQ(SMCError::fromStatus(-7, FourCC(0x46300A67u), "Y").what(),
                 "SMC rejected request for 'F0?g'");
    // Kernel codes and their detail are shown by the applesmc and CLI tests.
    EXPECT_EQ(SMCError::fromStatus(static_cast<std::int32_t>(0xE00002C2u), "X", "Y"),
              SMCError::kernel(static_cast<std::int32_t>(0xE00002C2u)));
    EXPECT_EQ(SMCError::noService().withDetail("no such socket").explanation(), "no such socket");
    EXPECT_EQ(SMCError::fromStatus(-3, "A", "B"), SMCError::keyNotFound("A"));
    EXPECT_FALSE(SMCError::keyNotFound("A") == SMCError::keyNotFound("B"));
}

class SMCTest : public testing::Test {
  protected:
    Machine machine = test::machineFromRows(
        "key F0Tg fpe2 2 0xd0 2000\n"
        "key F0Mx fpe2 2 0x80 6000\n"
        "key RPlt ch8* 8 0x80 \"j31\"\n"
        "key CLKH {clh 8 0xc0 <00 01>\n"
        "key LOCK ioft 8 0xc0\n"
        "key TC0P sp78 2 0xc0 45.5\n");
    SMC smc{std::make_unique<vsmc::MemoryTransport>(machine)};
};

// Reading keys, their information and numbers is every command's and the sampler's; here
// what fails, and has(), which nothing else asks.
TEST_F(SMCTest, ErrorsCarryTheKeyAndTheRealType) {
    EXPECT_TRUE(smc.has("TC0P"));
    EXPECT_FALSE(smc.has("NOPE"));  // asked once: the channel's negative cache (channel_test)
    EXPECT_EQ(errorOf([&] { smc.readDouble("RPlt"); }), SMCError::unsupportedType("RPlt", "ch8*"));
    EXPECT_EQ(errorOf([&] { smc.readDouble("NOPE"); }), SMCError::keyNotFound("NOPE"));
    EXPECT_EQ(errorOf([&] { smc.write("LOCK", 1.0); }),
              SMCError::unsupportedType(FourCC::unknown, "ioft"));
    std::vector<std::uint8_t> tooLong{0, 0, 0};
    EXPECT_EQ(errorOf([&] { smc.write("F0Tg", tooLong); }), SMCError::sizeMismatch("F0Tg"));
    EXPECT_EQ(errorOf([&] { smc.write("F0Mx", 5000.0); }), SMCError::firmware("F0Mx"));
    // A failing key count is reported against #KEY; a failing index against no key.
    machine.injectFault({FourCC("#KEY").rawValue, SMC_CMD_READ, 1, 0, 0x85});
    EXPECT_EQ(errorOf([&] { smc.keyCount(); }), SMCError::firmware("#KEY"));
    EXPECT_EQ(errorOf([&] { smc.key(99); }), SMCError::firmware(FourCC::unknown));
}

TEST_F(SMCTest, AllKeysSkipsIndexesThatFail) {
    machine.injectFault({std::nullopt, SMC_CMD_KEY_AT_INDEX, 2, SMC_KERN_IO_ERROR, 0});
    std::vector<FourCC> keys = smc.allKeys();
    ASSERT_EQ(keys.size(), 5u);
    EXPECT_EQ(keys.front(), FourCC("F0Mx")) << "#KEY and CLKH were the failing indexes";
}

}  // namespace
