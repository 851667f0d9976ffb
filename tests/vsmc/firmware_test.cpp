// The firmware's write rules for the three kinds of fan control, and the faults that go
// beyond a single exchange, seen through the channel as a fan writer sees them.

#include <gtest/gtest.h>

#include "csmc/smc.h"
#include "ostrel/vsmc/machine.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel::vsmc;
using ostrel::test::Connection;
using ostrel::test::readNumber;
using ostrel::test::writeNumber;

TEST(ForceMask, EachBitPutsItsFanInManualAndClearingItHandsTheFanBack) {
    Machine machine = ostrel::test::builtinMachine("macbookpro10-1");
    Connection conn(machine);
    ASSERT_EQ(machine.fanControl(), FanControlKind::forceMask);
    ASSERT_EQ(writeNumber(conn.get(), "F1Tg", 4000), SMC_OK);
    ASSERT_EQ(writeNumber(conn.get(), "FS! ", 2), SMC_OK);
    EXPECT_FALSE(machine.fanManual(0));
    EXPECT_TRUE(machine.fanManual(1));
    machine.advance(30);
    EXPECT_NEAR(machine.simulation().state().fans[1].actual, 4000, 5);
    EXPECT_EQ(readNumber(conn.get(), "F1Tg"), 4000) << "a manual fan keeps its written target";

    ASSERT_EQ(writeNumber(conn.get(), "FS! ", 0), SMC_OK);
    machine.advance(30);
    EXPECT_FALSE(machine.fanManual(1));
    EXPECT_NE(readNumber(conn.get(), "F1Tg"), 4000) << "the firmware sets the target again";
}

TEST(ModeKeys, OneIsManualAndEveryOtherValueLeavesTheFirmwareInCharge) {
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    Connection conn(machine);
    ASSERT_EQ(machine.fanControl(), FanControlKind::modeKeys);
    ASSERT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_OK);
    EXPECT_TRUE(machine.fanManual(0));
    EXPECT_FALSE(machine.fanManual(1));
    ASSERT_EQ(writeNumber(conn.get(), "F0Md", 3), SMC_OK);
    EXPECT_FALSE(machine.fanManual(0)) << "the 'system' mode behaves as automatic";
    EXPECT_EQ(readNumber(conn.get(), "F0Md"), 3) << "the written mode is kept";
}

class TestKey : public testing::Test {
  protected:
    TestKey() { machine.setUnlockRefusals(3); }
    Machine machine = ostrel::test::builtinMachine("macbookpro18-2");
    Connection conn{machine};
};

TEST_F(TestKey, ModeWritesAreRefusedWhileItIsClear) {
    ASSERT_EQ(machine.fanControl(), FanControlKind::testKey);
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_EFIRMWARE);
    EXPECT_EQ(machine.journal().back().result, kResultModeLocked);
    EXPECT_EQ(readNumber(conn.get(), "F0Md"), 0);
}

TEST_F(TestKey, ModeWritesAreHonouredAfterTheConfiguredRefusals) {
    ASSERT_EQ(writeNumber(conn.get(), "Ftst", 1), SMC_OK);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(writeNumber(conn.get(), i == 1 ? "F1Md" : "F0Md", 1), SMC_EFIRMWARE) << i;
    }
    EXPECT_EQ(machine.unlockRefusalsLeft(), 0u);
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_OK);
    EXPECT_EQ(writeNumber(conn.get(), "F1Md", 1), SMC_OK);
    EXPECT_TRUE(machine.fanManual(0));
    ASSERT_EQ(writeNumber(conn.get(), "Ftst", 1), SMC_OK);
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 0), SMC_OK) << "setting it again does not re-lock";
}

TEST_F(TestKey, ClearingItHandsTheFansBackAndLocksAgain) {
    writeNumber(conn.get(), "Ftst", 1);
    machine.setUnlockRefusals(0);
    writeNumber(conn.get(), "Ftst", 0);
    writeNumber(conn.get(), "Ftst", 1);
    ASSERT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_OK);
    ASSERT_EQ(writeNumber(conn.get(), "Ftst", 0), SMC_OK);
    EXPECT_EQ(readNumber(conn.get(), "F0Md"), 0);
    EXPECT_FALSE(machine.fanManual(0));
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_EFIRMWARE);
}

TEST(Faults, AVanishedKeyReadsAsUnknownUntilRestored) {
    Machine machine = ostrel::test::builtinMachine("macbookpro10-1");
    Connection conn(machine);
    double before = readNumber(conn.get(), "TC0P");
    std::uint32_t count = 0;
    ASSERT_EQ(smc_key_count(conn.get(), &count), SMC_OK);
    ASSERT_TRUE(machine.vanishKey(smc_fourcc("TC0P")));
    EXPECT_FALSE(machine.vanishKey(smc_fourcc("TC0P")));
    double value = 0;
    EXPECT_EQ(smc_read_double(conn.get(), smc_fourcc("TC0P"), &value), SMC_ENOKEY)
        << "even with its information cached";
    std::uint32_t fewer = 0;
    ASSERT_EQ(smc_key_count(conn.get(), &fewer), SMC_OK);
    EXPECT_EQ(fewer, count - 1);
    machine.advance(1);  // a vanished bound key is simply not published
    ASSERT_TRUE(machine.restoreKey(smc_fourcc("TC0P")));
    EXPECT_EQ(readNumber(conn.get(), "TC0P"), before);
}

TEST(Faults, BogusLimitsAreReportedButTheFirmwareKeepsTheFanInItsRealRange) {
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    Connection conn(machine);
    ASSERT_TRUE(machine.setFanLimits(0, 9000, 100));
    EXPECT_FALSE(machine.setFanLimits(7, 1, 2));
    Machine fpe2 = ostrel::test::builtinMachine("macbookpro10-1");
    EXPECT_FALSE(fpe2.setFanLimits(0, -5, 100)) << "flt holds it, but fpe2 cannot";
    EXPECT_EQ(readNumber(conn.get(), "F0Mn"), 9000);
    EXPECT_EQ(readNumber(conn.get(), "F0Mx"), 100);
    writeNumber(conn.get(), "F0Md", 1);
    writeNumber(conn.get(), "F0Tg", 20000);
    machine.advance(20);
    EXPECT_NEAR(machine.simulation().state().fans[0].actual, 5297.4, 5);
}

TEST(Faults, AStalledFanStopsWhateverItIsTold) {
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    Connection conn(machine);
    writeNumber(conn.get(), "F1Md", 1);
    writeNumber(conn.get(), "F1Tg", 4000);
    ASSERT_TRUE(machine.setFanStalled(1, true));
    machine.advance(60);
    EXPECT_EQ(readNumber(conn.get(), "F1Ac"), 0);
    EXPECT_EQ(readNumber(conn.get(), "F1Tg"), 4000);
    machine.setFanStalled(1, false);
    machine.advance(30);
    EXPECT_NEAR(readNumber(conn.get(), "F1Ac"), 4000, 20);
}

TEST(WriteLog, RecordsEveryWriteWithItsOutcomeAndStaysBounded) {
    Machine machine = ostrel::test::builtinMachine("macbookpro18-2");
    Connection user(machine, Caller{false});
    machine.setRefuseUnprivilegedWrites(true);
    EXPECT_EQ(writeNumber(user.get(), "Ftst", 1), SMC_ENOTPRIVILEGED);
    ASSERT_EQ(machine.writes().size(), 1u);
    EXPECT_FALSE(machine.writes()[0].privileged);
    EXPECT_EQ(machine.writes()[0].kern, SMC_KERN_NOT_PRIVILEGED);
    Connection root(machine);
    for (std::size_t i = 0; i < Machine::kWriteLogSize + 10; ++i) {
        writeNumber(root.get(), "F0Md", 1);
    }
    EXPECT_EQ(machine.writes().size(), Machine::kWriteLogSize);
    EXPECT_EQ(machine.writeCount(), Machine::kWriteLogSize + 11);
    machine.setJournalLimit(50);
    for (int i = 0; i < 200; ++i) {
        readNumber(root.get(), "F0Md");
    }
    EXPECT_LT(machine.journal().size(), 100u);
}

}  // namespace
