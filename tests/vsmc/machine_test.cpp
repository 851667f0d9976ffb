// The virtual SMC's answers to the parameter record, its journal and its faults.

#include <gtest/gtest.h>

#include "csmc/smc.h"
#include "ostrel/vsmc/machine.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel::vsmc;

smc_param request(std::uint8_t command, const char *key = "\0\0\0\0", std::uint32_t size = 0) {
    smc_param in{};
    in.command = command;
    in.key = smc_fourcc(key);
    in.data_size = size;
    return in;
}

class MachineTest : public testing::Test {
  protected:
    Machine machine = ostrel::test::machineFromRows(
        "key F0Tg fpe2 2 0xd0 2000\n"
        "key F0Mx fpe2 2 0x88 6000\n"
        "key SECR ui8  1 0x40 7\n");
    smc_param out{};
};

TEST_F(MachineTest, KeyInformationMasksTheConstantBit) {
    ASSERT_EQ(machine.exchange(request(SMC_CMD_KEY_INFO, "F0Mx"), out), 0u);
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(out.data_type, smc_fourcc("fpe2"));
    EXPECT_EQ(out.data_size, 2u);
    EXPECT_EQ(out.attributes, 0x80);
}

TEST_F(MachineTest, AnswersLikeTheFirmwareForUnknownUnreadableAndReadOnlyKeys) {
    machine.exchange(request(SMC_CMD_READ, "NOPE", 2), out);
    EXPECT_EQ(out.result, SMC_RESULT_KEY_NOT_FOUND);
    out = {};
    machine.exchange(request(SMC_CMD_READ, "SECR", 1), out);
    EXPECT_EQ(out.result, SMC_RESULT_NOT_READABLE);
    out = {};
    smc_param write = request(SMC_CMD_WRITE, "F0Mx", 2);
    machine.exchange(write, out);
    EXPECT_EQ(out.result, SMC_RESULT_NOT_WRITABLE);
    out = {};
    machine.exchange(request(SMC_CMD_KEY_AT_INDEX), out);
    EXPECT_EQ(out.key, smc_fourcc("#KEY"));
    out = {};
    smc_param beyond = request(SMC_CMD_KEY_AT_INDEX);
    beyond.index = 4;
    machine.exchange(beyond, out);
    EXPECT_EQ(out.result, SMC_RESULT_INDEX_RANGE);
    EXPECT_EQ(machine.exchange(request(42), out), SMC_KERN_BAD_ARGUMENT);
}

TEST_F(MachineTest, WritesChangeTheTableAndAreJournalled) {
    smc_param write = request(SMC_CMD_WRITE, "F0Tg", 2);
    write.bytes[0] = 0x2E;
    write.bytes[1] = 0xE0;
    ASSERT_EQ(machine.exchange(write, out), 0u);
    EXPECT_EQ(out.result, 0);
    out = {};
    machine.exchange(request(SMC_CMD_READ, "F0Tg", 2), out);
    EXPECT_EQ(out.bytes[0], 0x2E);
    ASSERT_EQ(machine.journal().size(), 2u);
    const ExchangeRecord &w = machine.journal()[0];
    EXPECT_EQ(w.command, SMC_CMD_WRITE);
    EXPECT_EQ(w.key, smc_fourcc("F0Tg"));
    EXPECT_EQ(w.bytes, (std::vector<std::uint8_t>{0x2E, 0xE0}));
    EXPECT_EQ(machine.journal()[1].bytes, (std::vector<std::uint8_t>{0x2E, 0xE0}));
    EXPECT_EQ(machine.count(SMC_CMD_WRITE), 1u);
    machine.clearJournal();
    EXPECT_EQ(machine.totalExchanges(), 0u);
}

TEST_F(MachineTest, UnprivilegedWritesAreRefusedByTheKernelWhenAsked) {
    smc_param write = request(SMC_CMD_WRITE, "F0Tg", 2);
    Caller user{false};
    EXPECT_EQ(machine.exchange(write, out, user), 0u) << "privilege not required by default";
    machine.setRefuseUnprivilegedWrites(true);
    write.bytes[0] = 0x10;
    EXPECT_EQ(machine.exchange(write, out, user), SMC_KERN_NOT_PRIVILEGED);
    EXPECT_EQ(machine.keys().find(smc_fourcc("F0Tg"))->bytes[0], 0x00);
    EXPECT_EQ(machine.exchange(write, out, Caller{true}), 0u);
    EXPECT_EQ(machine.keys().find(smc_fourcc("F0Tg"))->bytes[0], 0x10);
    out = {};
    EXPECT_EQ(machine.exchange(request(SMC_CMD_READ, "F0Tg", 2), out, user), 0u)
        << "reads need no privilege";
}

TEST_F(MachineTest, FaultsMatchByKeyAndCommandAndRunOut) {
    machine.injectFault({smc_fourcc("F0Tg"), SMC_CMD_WRITE, 2, 0, 0x82});
    machine.injectFault({std::nullopt, SMC_CMD_KEY_AT_INDEX, 1, SMC_KERN_IO_ERROR, 0});
    smc_param write = request(SMC_CMD_WRITE, "F0Tg", 2);
    write.bytes[0] = 0x10;
    machine.exchange(request(SMC_CMD_READ, "F0Tg", 2), out);
    EXPECT_EQ(out.result, 0) << "a read of the key is not a write";
    for (int i = 0; i < 2; ++i) {
        out = {};
        EXPECT_EQ(machine.exchange(write, out), 0u);
        EXPECT_EQ(out.result, 0x82);
    }
    EXPECT_EQ(machine.keys().find(smc_fourcc("F0Tg"))->bytes[0], 0x1F) << "no effect";
    out = {};
    machine.exchange(write, out);
    EXPECT_EQ(out.result, 0);
    EXPECT_EQ(machine.exchange(request(SMC_CMD_KEY_AT_INDEX), out), SMC_KERN_IO_ERROR);
    EXPECT_TRUE(machine.journal().back().injected);
    EXPECT_EQ(machine.exchange(request(SMC_CMD_KEY_AT_INDEX), out), 0u);
}

}  // namespace
