// The fan writer against the virtual Mac's firmware rules, read back from its journal. The
// loop closed over sampler, engine and writer is the controller's (tests/helper).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ostrel/fan_writer.h"
#include "ostrel/sampler.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using test::Write;
using testing::ElementsAre;

class FanWriterTest : public testing::Test, protected test::Sandbox {
  protected:
    std::unique_ptr<vsmc::Machine> machine;
    std::shared_ptr<SMC> smc;
    std::unique_ptr<FanWriter> writer;

    void useMachine(vsmc::Machine m) {
        writer.reset();
        smc.reset();
        machine = std::make_unique<vsmc::Machine>(std::move(m));
        smc = std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(*machine));
        writer = std::make_unique<FanWriter>(smc, loadDiscovery(*smc, false, system), clock);
        machine->clearJournal();
    }

    std::vector<Write> writes() { return test::takeWrites(*machine); }
    std::size_t refusedModeWrites() {
        return std::ranges::count_if(machine->journal(), [](const vsmc::ExchangeRecord &r) {
            return r.command == SMC_CMD_WRITE && r.result != 0;
        });
    }
};

TEST_F(FanWriterTest, ForceMaskMachineSetsAndClearsItsBit) {
    useMachine(test::builtinMachine("macbookpro10-1"));
    EXPECT_EQ(writer->setManual(1, 3000), 3000);
    EXPECT_THAT(writes(), ElementsAre(Write{"FS! ", 2}, Write{"F1Tg", 3000}));
    writer->setManual(0, 9000);
    EXPECT_THAT(writes(), ElementsAre(Write{"FS! ", 3}, Write{"F0Tg", 5940}));
    writer->setAuto(1);
    EXPECT_THAT(writes(), ElementsAre(Write{"FS! ", 1}));
    writer->setAllAuto();
    EXPECT_THAT(writes(), ElementsAre(Write{"FS! ", 0}, Write{"FS! ", 0}));
}

TEST_F(FanWriterTest, ModeKeyMachineWritesModeThenTargetAndRestoresTheOriginalMode) {
    vsmc::Machine t2 = test::builtinMachine("macbookpro16-1");
    t2.keys().find(FourCC("F1Md").rawValue)->bytes[0] = 3;  // a "system" mode to restore
    useMachine(std::move(t2));
    auto noFanSeven = testing::ThrowsMessage<FanControlError>(testing::StrEq("no fan with id 7"));
    EXPECT_THAT([&] { writer->setManual(7, 2000); }, noFanSeven);
    EXPECT_THAT([&] { writer->setAuto(7); }, noFanSeven);
    EXPECT_EQ(machine->totalExchanges(), 0u) << "unknown fans write nothing";
    EXPECT_EQ(writer->setManual(1, 500), 1700) << "raised to the minimum";
    EXPECT_THAT(writes(), ElementsAre(Write{"F1Md", 1}, Write{"F1Tg", 1700}));
    writer->setManual(0, std::numeric_limits<double>::infinity());
    EXPECT_THAT(writes(), ElementsAre(Write{"F0Md", 1}, Write{"F0Tg", 5297.39990234375}));
    writer->setAllAuto();
    EXPECT_THAT(writes(), ElementsAre(Write{"F0Md", 0}, Write{"F1Md", 3}));
    // A fan found in manual mode is handed back to automatic, not left manual.
    machine->keys().find(FourCC("F0Md").rawValue)->bytes[0] = 1;
    FanWriter second(smc, writer->discovery(), clock);
    EXPECT_EQ(second.originalMode().at(0), 0);

    // Without the test key a refused mode write fails at once, and no target is written.
    machine->injectFault({FourCC("F0Md").rawValue, SMC_CMD_WRITE, 1, 0, 0x86});
    EXPECT_THROW(writer->setManual(0, 2000), SMCError);
    EXPECT_EQ(clock.sleeps(), 0);
    EXPECT_TRUE(writes().empty());
}

TEST_F(FanWriterTest, TestKeyMachineUnlocksOnceAndWaitsOutUpTo49FirmwareRefusals) {
    useMachine(test::builtinMachine("macbookpro18-2"));
    machine->setUnlockRefusals(49);
    EXPECT_EQ(writer->setManual(0, 2500), 2500);
    EXPECT_EQ(clock.sleeps(), 49);
    EXPECT_EQ(clock.slept(), std::chrono::milliseconds(4900));
    EXPECT_EQ(refusedModeWrites(), 49u);
    EXPECT_THAT(writes(), ElementsAre(Write{"Ftst", 1}, Write{"F0Md", 1}, Write{"F0Tg", 2500}));
    writer->setManual(1, 3000);
    EXPECT_THAT(writes(), ElementsAre(Write{"F1Md", 1}, Write{"F1Tg", 3000})) << "no second Ftst";
    writer->setAuto(1);
    EXPECT_THAT(writes(), ElementsAre(Write{"F1Md", 0}));
    writer->setAllAuto();
    EXPECT_THAT(writes(), ElementsAre(Write{"F0Md", 0}, Write{"F1Md", 0}, Write{"Ftst", 0}));
    machine->setUnlockRefusals(0);
    writer->setManual(0, 2500);
    EXPECT_EQ(writes().front(), (Write{"Ftst", 1})) << "unlocked again after setAllAuto";

    // Fifty refusals fail with the fiftieth error, after 49 waits.
    writer->setAllAuto();
    machine->setUnlockRefusals(50);
    machine->clearJournal();
    EXPECT_THAT([&] { writer->setManual(0, 2500); },
                testing::Throws<SMCError>(testing::Eq(SMCError::firmware("F0Md"))));
    EXPECT_EQ(clock.sleeps(), 49 + 49);
    EXPECT_EQ(refusedModeWrites(), 50u);
    EXPECT_TRUE(writer->unlocked()) << "the test key write itself succeeded";
}

TEST_F(FanWriterTest, FanTenUsesTheAKeys) {
    useMachine(test::machineFromRows(
        "key FAMd ui8  1 0xd0 0\nkey FAMn fpe2 2 0xc0 1000\nkey FAMx fpe2 2 0xc0 4000\n"
        "key FATg fpe2 2 0xd0 1000\nkey FAAc fpe2 2 0x90 1000\n"));
    Discovery discovery;
    discovery.fans = {{10, "Fan 11", true}};
    FanWriter tenth(smc, discovery, clock);
    EXPECT_EQ(tenth.limits(10), (std::pair<double, double>{1000, 4000}));
    tenth.setManual(10, 2000);
    EXPECT_THAT(writes(), ElementsAre(Write{"FAMd", 1}, Write{"FATg", 2000}));
}

TEST_F(FanWriterTest, AMaskThatIsNoBitMaskFailsTheFanAndIsSkippedWhenAllGoBack) {
    useMachine(test::machineFromRows(
        "key FNum ui8 1 0x80 2\nkey FS! flt 4 0xc0 0\n"
        "key F0Mn fpe2 2 0xc0 1000\nkey F0Mx fpe2 2 0xc0 4000\nkey F0Tg fpe2 2 0xd0 1000\n"
        "key F0Ac fpe2 2 0x90 1000\nkey F1Md ui8 1 0xd0 0\n"));
    machine->keys().find(csmc::kForceMaskKey)->bytes = {0x00, 0x00, 0xC0, 0x7F};  // NaN
    EXPECT_THAT([&] { writer->setManual(0, 2000); },
                testing::ThrowsMessage<FanControlError>(
                    testing::StrEq("SMC key 'FS! ' does not hold a fan bit mask (it reads nan)")));
    EXPECT_THROW(writer->setAuto(0), FanControlError);
    machine->clearJournal();
    writer->setAllAuto();
    EXPECT_THAT(writes(), ElementsAre(Write{"F1Md", 0})) << "fan 0 skipped, fan 1 handed back";
}

}  // namespace
