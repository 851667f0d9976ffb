// The virtual SMC: its answers to the parameter record, its journal and faults, and the
// firmware's write rules for the three kinds of fan control and its own fan curve, seen
// through the channel as a fan writer sees them.

#include <gtest/gtest.h>

#include "csmc/smc.h"
#include "ostrel/vsmc/machine.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel::vsmc;
using ostrel::test::Connection;
using ostrel::test::readNumber;
using ostrel::test::writeNumber;
using Bytes = std::vector<std::uint8_t>;

smc_param request(std::uint8_t command, const char *key = "\0\0\0\0", std::uint32_t size = 0) {
    smc_param in{};
    in.command = command;
    in.key = smc_fourcc(key);
    in.data_size = size;
    return in;
}

TEST(MachineTest, AnswersLikeTheFirmwareUnlessAFaultSaysOtherwiseAndJournalsEveryExchange) {
    Machine machine = ostrel::test::machineFromRows(
        "key F0Tg fpe2 2 0xd0 2000\n"
        "key F0Mx fpe2 2 0x88 6000\n"
        "key SECR ui8  1 0x40 7\n");
    smc_param out{};
    // Answers `in` into a zeroed `out`.
    auto exchange = [&](const smc_param &in, Caller caller = {}) {
        out = {};
        return machine.exchange(in, out, caller);
    };
    smc_param beyond = request(SMC_CMD_KEY_AT_INDEX);
    beyond.index = 4;
    const std::vector<std::tuple<const char *, smc_param, std::uint32_t, int>> cases = {
        {"not readable", request(SMC_CMD_READ, "SECR", 1), 0, SMC_RESULT_NOT_READABLE},
        {"read-only", request(SMC_CMD_WRITE, "F0Mx", 2), 0, SMC_RESULT_NOT_WRITABLE},
        {"past the last key", beyond, 0, SMC_RESULT_INDEX_RANGE},
        {"unknown command", request(42), SMC_KERN_BAD_ARGUMENT, 0}};
    for (const auto &[name, in, kern, result] : cases) {
        std::uint32_t answer = exchange(in);
        EXPECT_EQ(std::pair(answer, int{out.result}), std::pair(kern, result)) << name;
    }
    ASSERT_EQ(exchange(request(SMC_CMD_KEY_INFO, "F0Mx")), 0u);
    EXPECT_EQ(std::tuple(int{out.result}, out.data_type, out.data_size, int{out.attributes}),
              std::tuple(0, smc_fourcc("fpe2"), 2u, 0x80))
        << "the constant bit is masked";

    // Faults match by key and command, and run out.
    machine.injectFault({smc_fourcc("F0Tg"), SMC_CMD_WRITE, 1, 0, 0x82});
    machine.injectFault({std::nullopt, SMC_CMD_KEY_AT_INDEX, 1, SMC_KERN_IO_ERROR, 0});
    smc_param write = request(SMC_CMD_WRITE, "F0Tg", 2);
    write.bytes[0] = 0x10;
    exchange(request(SMC_CMD_READ, "F0Tg", 2));
    EXPECT_EQ(out.result, 0) << "a read of the key is not a write";
    EXPECT_EQ(exchange(write), 0u);
    EXPECT_EQ(out.result, 0x82);
    EXPECT_EQ(machine.keys().find(smc_fourcc("F0Tg"))->bytes[0], 0x1F) << "no effect";
    exchange(write);
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(exchange(request(SMC_CMD_KEY_AT_INDEX)), SMC_KERN_IO_ERROR);
    EXPECT_TRUE(machine.journal().back().injected);
    EXPECT_EQ(exchange(request(SMC_CMD_KEY_AT_INDEX)), 0u);

    // Reads are journalled with the value they gave. (Writes refused to a peer that is not
    // root: the server tests, with a real one.)
    EXPECT_EQ(exchange(request(SMC_CMD_READ, "F0Tg", 2), Caller{false}), 0u);
    EXPECT_EQ(machine.journal().back().bytes, (Bytes{0x10, 0}));  // count(): the channel tests
    machine.clearJournal();
    EXPECT_EQ(machine.totalExchanges(), 0u);
}

TEST(ForceMask, EachBitTakesItsFanClearingItHandsBackToTheCurveOfTheHottestCpuAndKeysVanish) {
    Machine machine = ostrel::test::builtinMachine("macbookpro10-1");
    Connection conn(machine);
    ASSERT_EQ(machine.fanControl(), FanControlKind::forceMask);
    ASSERT_EQ(writeNumber(conn.get(), "F1Tg", 4000), SMC_OK);
    ASSERT_EQ(writeNumber(conn.get(), "FS! ", 2), SMC_OK);
    EXPECT_EQ(std::pair(machine.fanManual(0), machine.fanManual(1)), std::pair(false, true));
    machine.advance(30);
    EXPECT_NEAR(machine.simulation().state().fans[1].actual, 4000, 5);
    EXPECT_EQ(readNumber(conn.get(), "F1Tg"), 4000) << "a manual fan keeps its written target";

    ASSERT_EQ(writeNumber(conn.get(), "FS! ", 0), SMC_OK);
    machine.advance(30);
    EXPECT_FALSE(machine.fanManual(1));
    EXPECT_NE(readNumber(conn.get(), "F1Tg"), 4000) << "the firmware sets the target again";

    // A vanished key leaves the table until restored with its value (reads: server tests).
    double before = readNumber(conn.get(), "TC0P");
    double count = readNumber(conn.get(), "#KEY");
    ASSERT_TRUE(machine.vanishKey(smc_fourcc("TC0P")));
    EXPECT_EQ(readNumber(conn.get(), "#KEY"), count - 1);
    machine.advance(1);  // a vanished bound key is simply not published
    ASSERT_TRUE(machine.restoreKey(smc_fourcc("TC0P")));
    EXPECT_EQ(readNumber(conn.get(), "TC0P"), before);

    // Fans the firmware runs follow its curve of the hottest CPU.
    machine.setLoad(0, 0);
    machine.advance(900);
    EXPECT_NEAR(readNumber(conn.get(), "F0Tg"), 2160, 1) << "idle: the minimum";

    machine.setLoad(1, 1);
    double previous = 0;
    for (int i = 0; i < 6; ++i) {
        machine.advance(20);
        double target = readNumber(conn.get(), "F0Tg");
        EXPECT_GE(target, previous) << "heating up, the curve only rises";
        previous = target;
    }
    machine.advance(600);
    const Simulation &sim = machine.simulation();
    const MachineParams &p = sim.params();
    double fraction = (sim.hottestCpu() - p.fanCurveLow) / (p.fanCurveHigh - p.fanCurveLow);
    EXPECT_GT(fraction, 0);
    EXPECT_LT(fraction, 1);
    EXPECT_NEAR(readNumber(conn.get(), "F0Tg"), 2160 + (5940 - 2160) * fraction, 1);
    EXPECT_NEAR(readNumber(conn.get(), "F1Tg"), 2000 + (5499 - 2000) * fraction, 1);
    EXPECT_GE(sim.hottestCpu(), sim.state().node(Node::cpu))
        << "TC0E and friends sit above the die";
}

TEST(ModeKeys, OneIsManualOtherValuesAutomaticAndBogusLimitsOrStallsDoNotMoveTheRealFan) {
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    Connection conn(machine);
    ASSERT_EQ(machine.fanControl(), FanControlKind::modeKeys);
    ASSERT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_OK);
    EXPECT_EQ(std::pair(machine.fanManual(0), machine.fanManual(1)), std::pair(true, false));
    ASSERT_EQ(writeNumber(conn.get(), "F0Md", 3), SMC_OK);
    EXPECT_FALSE(machine.fanManual(0)) << "the 'system' mode behaves as automatic";
    EXPECT_EQ(readNumber(conn.get(), "F0Md"), 3) << "the written mode is kept";

    // Bogus limits are reported, but the firmware keeps the fan in its real range.
    ASSERT_TRUE(machine.setFanLimits(0, 9000, 100));
    EXPECT_FALSE(machine.setFanLimits(7, 1, 2));
    EXPECT_EQ(readNumber(conn.get(), "F0Mn"), 9000);
    EXPECT_EQ(readNumber(conn.get(), "F0Mx"), 100);
    writeNumber(conn.get(), "F0Md", 1);
    writeNumber(conn.get(), "F0Tg", 20000);
    machine.advance(20);
    EXPECT_NEAR(machine.simulation().state().fans[0].actual, 5297.4, 5);

    // A stalled fan stops whatever it is told.
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

TEST(TestKey, ModeWritesAreRefusedWhileItIsClearHonouredAfterTheRefusalsAndAllLogged) {
    Machine machine = ostrel::test::builtinMachine("macbookpro18-2");
    machine.setUnlockRefusals(3);
    Connection conn(machine);
    ASSERT_EQ(machine.fanControl(), FanControlKind::testKey);
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_EFIRMWARE);
    EXPECT_EQ(machine.journal().back().result, kResultModeLocked);
    ASSERT_EQ(writeNumber(conn.get(), "Ftst", 1), SMC_OK);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(writeNumber(conn.get(), i == 1 ? "F1Md" : "F0Md", 1), SMC_EFIRMWARE) << i;
    }
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_OK);
    EXPECT_EQ(writeNumber(conn.get(), "F1Md", 1), SMC_OK);
    EXPECT_TRUE(machine.fanManual(0));
    ASSERT_EQ(writeNumber(conn.get(), "Ftst", 1), SMC_OK);
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_OK) << "setting it again does not re-lock";

    // Clearing it hands the fans back and locks again.
    ASSERT_EQ(writeNumber(conn.get(), "Ftst", 0), SMC_OK);
    EXPECT_EQ(readNumber(conn.get(), "F0Md"), 0);
    EXPECT_FALSE(machine.fanManual(0));
    EXPECT_EQ(writeNumber(conn.get(), "F0Md", 1), SMC_EFIRMWARE);
    EXPECT_EQ(readNumber(conn.get(), "F0Md"), 0);

    // Every write is logged; the log stays bounded, as does the journal.
    std::uint64_t before = machine.writeCount();
    for (std::size_t i = 0; i < Machine::kWriteLogSize + 10; ++i) {
        writeNumber(conn.get(), "F0Md", 1);
    }
    EXPECT_EQ(machine.writes().size(), Machine::kWriteLogSize);
    EXPECT_EQ(machine.writeCount(), before + Machine::kWriteLogSize + 10);
    machine.setJournalLimit(50);
    for (int i = 0; i < 200; ++i) {
        readNumber(conn.get(), "F0Md");
    }
    EXPECT_LT(machine.journal().size(), 100u);
}

}  // namespace
