// The applesmc transport against a fake driver on the built-in virtual Macs: the same key
// table and values as the in-process transport, fan writes as the driver's files take
// them, privilege and error mapping, and a selector that other processes move.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "csmc/applesmc.h"
#include "ostrel/smc.h"
#include "ostrel/vsmc/memory_transport.h"
#include "support/fake_applesmc.h"
#include "support/test_machine.h"

namespace {

using csmc::ApplesmcTransport;
using ostrel::FourCC;
using ostrel::SMC;
using ostrel::SMCError;
using ostrel::test::FakeApplesmc;
using ostrel::vsmc::Machine;
using testing::HasSubstr;
using Store = FakeApplesmc::Store;
using Stores = std::vector<Store>;

constexpr const char *kLock = "/run/dev.ostrel.applesmc.lock";

std::vector<std::uint8_t> machineBytes(const Machine &machine, FourCC key) {
    const ostrel::vsmc::KeyEntry *entry = machine.keys().find(key.rawValue);
    return {entry->bytes.begin(), entry->bytes.begin() + entry->size};
}

SMCError kernelError(std::uint32_t code) {
    return SMCError::kernel(static_cast<std::int32_t>(code));
}

// The error an operation fails with; noService (which no operation here can give) when it
// does not fail.
template <typename Operation>
SMCError errorOf(Operation operation) {
    try {
        operation();
    } catch (const SMCError &error) {
        return error;
    }
    return SMCError::noService();
}

// A machine behind the fake driver, and one root (or other) process's SMC connection.
struct Rig {
    Rig(const std::string &profile, FakeApplesmc::Variant variant, unsigned uid = 0)
        : machine(ostrel::test::builtinMachine(profile)),
          driver(machine, variant),
          files(driver.opener(uid)) {}

    std::unique_ptr<SMC> connect() {
        return std::make_unique<SMC>(
            std::make_unique<ApplesmcTransport>(driver.device(), kLock, *files));
    }

    Machine machine;
    FakeApplesmc driver;
    std::unique_ptr<ostrel::platform::Sysfs> files;
};

struct MachineCase {
    const char *name;
    const char *profile;
    FakeApplesmc::Variant variant;
    std::map<std::string, std::uint8_t> writable;  // the keys the driver can write
};

class SameTableTest : public testing::TestWithParam<MachineCase> {};

TEST_P(SameTableTest, EveryKeyHasTheSameInfoAndValueAsThroughTheMemoryTransport) {
    const MachineCase &param = GetParam();
    Machine reference = ostrel::test::builtinMachine(param.profile);
    SMC memory(std::make_unique<ostrel::vsmc::MemoryTransport>(reference));
    Rig rig(param.profile, param.variant);
    auto smc = rig.connect();

    std::vector<FourCC> keys = smc->allKeys();
    ASSERT_EQ(keys, memory.allKeys());
    ASSERT_EQ(smc->keyCount(), keys.size());
    for (FourCC key : keys) {
        SCOPED_TRACE(key.description());
        ostrel::SMCKeyInfo info = smc->info(key);
        ostrel::SMCKeyInfo expected = memory.info(key);
        EXPECT_EQ(info.type, expected.type);
        EXPECT_EQ(info.size, expected.size);
        // The driver hides the attribute byte: the transport makes it up from what the
        // driver lets us write.
        auto writable = param.writable.find(key.description());
        EXPECT_EQ(info.attributes, writable == param.writable.end() ? 0x80 : writable->second);
        EXPECT_EQ(smc->read(key).bytes, memory.read(key).bytes);
    }
}

INSTANTIATE_TEST_SUITE_P(BuiltinMacs, SameTableTest,
                         testing::Values(MachineCase{"mainline",
                                                     "macbookpro10-1",
                                                     FakeApplesmc::Variant::mainline,
                                                     {{"FS! ", 0xC0},
                                                      {"F0Tg", 0xD0},
                                                      {"F1Tg", 0xD0},
                                                      {"F0Mn", 0xC0},
                                                      {"F1Mn", 0xC0}}},
                                         MachineCase{"t2",
                                                     "macbookpro16-1",
                                                     FakeApplesmc::Variant::t2,
                                                     {{"F0Md", 0xD0},
                                                      {"F1Md", 0xD0},
                                                      {"F0Tg", 0xD0},
                                                      {"F1Tg", 0xD0},
                                                      {"F0Mn", 0xC0},
                                                      {"F1Mn", 0xC0}}}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ApplesmcWritesTest, ForceMaskWritesBecomeOneManualStorePerChangedBit) {
    Rig rig("macbookpro10-1", FakeApplesmc::Variant::mainline);
    auto smc = rig.connect();

    // Fan 1 manual at 3000 rpm and back, then both fans at once, then nothing changed.
    ASSERT_EQ(smc->readDouble("FS! "), 0);
    smc->write("FS! ", 2.0);
    smc->write("F1Tg", 3000.0);
    smc->write("FS! ", 0.0);
    smc->write("FS! ", 3.0);
    smc->write("FS! ", 3.0);
    smc->write("F0Mn", 2400.0);

    EXPECT_EQ(rig.driver.fanStores(), (Stores{{"fan2_manual", "1"},
                                              {"fan2_output", "3000"},
                                              {"fan2_manual", "0"},
                                              {"fan1_manual", "1"},
                                              {"fan2_manual", "1"},
                                              {"fan1_min", "2400"}}));
    EXPECT_EQ(machineBytes(rig.machine, "FS! "), (std::vector<std::uint8_t>{0x00, 0x03}));
    EXPECT_EQ(machineBytes(rig.machine, "F1Tg"), (std::vector<std::uint8_t>{0x2E, 0xE0}));
    EXPECT_EQ(smc->readDouble("F0Mn"), 2400);
}

TEST(ApplesmcWritesTest, ModeKeysAndFloatTargetsGoToTheT2FanFiles) {
    Rig rig("macbookpro16-1", FakeApplesmc::Variant::t2);
    auto smc = rig.connect();

    smc->write("F0Md", 1.0);
    smc->write("F0Tg", 2500.7);  // the driver takes whole rpm
    smc->write("F1Tg", 1800.0);
    smc->write("F0Md", 0.0);

    EXPECT_EQ(rig.driver.fanStores(), (Stores{{"fan1_manual", "1"},
                                              {"fan1_output", "2500"},
                                              {"fan2_output", "1800"},
                                              {"fan1_manual", "0"}}));
    EXPECT_EQ(smc->readDouble("F0Tg"), 2500);
    EXPECT_EQ(smc->readDouble("F1Tg"), 1800);
    EXPECT_EQ(smc->readDouble("F0Md"), 0);
}

TEST(ApplesmcWritesTest, WritesTheDriverCannotMakeAreFirmwareRefusals) {
    Rig mainline("macbookpro10-1", FakeApplesmc::Variant::mainline);
    auto smc = mainline.connect();
    EXPECT_EQ(errorOf([&] { smc->write("TC0P", 40.0); }), SMCError::firmware("TC0P"));
    EXPECT_EQ(errorOf([&] { smc->write("F0Mx", 6000.0); }), SMCError::firmware("F0Mx"));
    // No fan file for bit 10: nothing is stored, not even the bits that have files.
    EXPECT_EQ(errorOf([&] { smc->write("FS! ", 1025.0); }), SMCError::firmware("FS! "));
    EXPECT_TRUE(mainline.driver.fanStores().empty());

    Rig t2("macbookpro16-1", FakeApplesmc::Variant::t2);
    auto t2smc = t2.connect();
    for (auto [key, value] : {std::pair{"F0Tg", 20000.0}, {"F0Md", 3.0}, {"F0Tg", -5.0}}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(errorOf([&] { t2smc->write(key, value); }), SMCError::firmware(key));
    }
    EXPECT_EQ(t2smc->readDouble("F0Tg"), 1836);
}

TEST(ApplesmcPrivilegeTest, AProcessThatIsNotRootIsToldWhatNeedsRootAndChangesNothing) {
    Rig rig("macbookpro10-1", FakeApplesmc::Variant::mainline, 1000);
    auto smc = rig.connect();
    SMCError error = errorOf([&] { smc->write("F0Tg", 2500.0); });
    EXPECT_EQ(error, SMCError::notPrivileged());
    EXPECT_THAT(error.what(), HasSubstr("ostrel helper install"));
    // Selecting a key is a write to a root-only file, so on this driver reading needs root
    // as well; the message must say reading, not writing, and how to get it.
    error = errorOf([&] { smc->read("TC0P"); });
    EXPECT_EQ(error, kernelError(SMC_KERN_NOT_PERMITTED));
    EXPECT_THAT(error.explanation(), HasSubstr("reading SMC keys through the applesmc driver "
                                               "needs root"));
    EXPECT_THAT(error.explanation(), HasSubstr("sudo"));
    EXPECT_THAT(error.explanation(), HasSubstr("ostrel helper install"));
    EXPECT_TRUE(rig.driver.stores().empty());
    EXPECT_EQ(rig.machine.count(SMC_CMD_WRITE), 0u);

    // Where the administrator lets the user select keys, the root-only lock is no obstacle.
    rig.driver.grantSelector(1000);
    EXPECT_EQ(smc->readDouble("F0Mx"), 5940);
    EXPECT_EQ(errorOf([&] { smc->write("F0Tg", 2500.0); }), SMCError::notPrivileged());
}

TEST(ApplesmcErrorsTest, DriverErrorsReachTheCallerAsKernelCodes) {
    Rig rig("macbookpro10-1", FakeApplesmc::Variant::mainline);
    auto smc = rig.connect();
    // A failed handshake inside the driver, and the same failure injected at the SMC.
    rig.driver.failNext("key_at_index_data", EIO);
    SMCError error = errorOf([&] { smc->read("TC0P"); });
    EXPECT_EQ(error, kernelError(SMC_KERN_IO_ERROR));
    EXPECT_EQ(error.explanation(), "IOKit error 0xe00002ca (applesmc: reading " +
                                       rig.driver.device() +
                                       "/key_at_index_data: Input/output error)");
    rig.machine.injectFault({smc_fourcc("TC0P"), SMC_CMD_READ, 1, SMC_KERN_IO_ERROR, 0});
    EXPECT_EQ(errorOf([&] { smc->read("TC0P"); }), kernelError(SMC_KERN_IO_ERROR));
    EXPECT_NO_THROW(smc->read("TC0P"));  // nothing sticks

    // A value the driver refuses.
    rig.driver.failNext("fan1_output", EINVAL);
    EXPECT_EQ(errorOf([&] { smc->write("F0Tg", 3000.0); }), SMCError::firmware("F0Tg"));

    // The module goes away.
    rig.driver.detach();
    EXPECT_EQ(errorOf([&] { smc->read("TC0P"); }), kernelError(SMC_KERN_NO_DEVICE));
    EXPECT_EQ(errorOf([&] { smc->write("F0Tg", 3000.0); }), kernelError(SMC_KERN_NO_DEVICE));
    EXPECT_EQ(errorOf([&] { smc->info("TB0T"); }), kernelError(SMC_KERN_NO_DEVICE));
    EXPECT_EQ(errorOf([&] { smc->key(0); }), kernelError(SMC_KERN_NO_DEVICE));
}

TEST(ApplesmcCostTest, KnownKeysAreReadWithoutSearching) {
    Rig rig("macbookpro10-1", FakeApplesmc::Variant::mainline);
    auto smc = rig.connect();
    smc->info("TC0P");
    std::size_t before = rig.driver.accesses();
    smc->read("TC0P");
    EXPECT_EQ(rig.driver.accesses() - before, 3u);  // select, data, name

    // Listing the keys tells the transport their indexes: describing one is then four
    // accesses (select, type, length, name) instead of a search.
    smc->allKeys();
    before = rig.driver.accesses();
    smc->info("TB0T");
    EXPECT_EQ(rig.driver.accesses() - before, 4u);
    EXPECT_EQ(rig.driver.lockPath(), kLock);
}

class ApplesmcSelectorTest : public testing::Test {
  protected:
    // Another root process selects the last key (which sorts after every key read here)
    // right after our next `times` uses of the selector.
    void moveSelectorAfterSelects(int times) {
        std::string last = std::to_string(rig.machine.keys().size() - 1);
        rig.driver.setAfterAccess([this, times, last](const std::string &attribute) {
            if (attribute == "key_at_index" && moves < times) {
                ++moves;
                rogue->write(rig.driver.device() + "/key_at_index", last);
            }
        });
    }

    Rig rig{"macbookpro10-1", FakeApplesmc::Variant::mainline};
    std::unique_ptr<SMC> smc = rig.connect();
    std::unique_ptr<ostrel::platform::Sysfs> rogue = rig.driver.rogue();
    int moves = 0;
};

TEST_F(ApplesmcSelectorTest, DescriptionsAndReadsSpoiltByAMovedSelectorAreDoneAgain) {
    smc->allKeys();  // every index known, no key described yet
    moveSelectorAfterSelects(1);
    ostrel::SMCKeyInfo info = smc->info("TC0P");
    EXPECT_EQ(info.type, FourCC("sp78"));
    EXPECT_EQ(info.size, 2u);
    moves = 0;
    EXPECT_EQ(smc->read("TC0P").bytes, machineBytes(rig.machine, "TC0P"));
    EXPECT_EQ(moves, 1);
}

TEST_F(ApplesmcSelectorTest, ASearchSpoiltByAMovedSelectorStillFindsTheKey) {
    moveSelectorAfterSelects(2);
    EXPECT_EQ(smc->info("TC0P").size, 2u);
    EXPECT_EQ(smc->read("TC0P").bytes, machineBytes(rig.machine, "TC0P"));
    EXPECT_EQ(moves, 2);
}

TEST_F(ApplesmcSelectorTest, ASelectorThatNeverStaysPutMakesTheDeviceBusyNotWrong) {
    smc->info("TC0P");
    smc->info("FS! ");
    moveSelectorAfterSelects(1000);
    EXPECT_EQ(errorOf([&] { smc->read("TC0P"); }), kernelError(SMC_KERN_BUSY));
    EXPECT_EQ(errorOf([&] { smc->write("FS! ", 1.0); }), kernelError(SMC_KERN_BUSY));
    EXPECT_EQ(errorOf([&] { smc->info("TB0T"); }), kernelError(SMC_KERN_BUSY));
    rig.driver.setAfterAccess(nullptr);
    EXPECT_EQ(smc->info("TB0T").size, 2u);
    EXPECT_TRUE(rig.driver.fanStores().empty());
}

TEST_F(ApplesmcSelectorTest, ConcurrentReadersHoldTheLockForEverySelectorUse) {
    // Two threads on one connection and a third process of its own.
    auto other = rig.driver.opener();
    SMC second(std::make_unique<ApplesmcTransport>(rig.driver.device(), kLock, *other));
    auto reader = [](SMC &connection, FourCC key, std::vector<std::uint8_t> expected) {
        return [&connection, key, expected] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_EQ(connection.read(key).bytes, expected);
            }
        };
    };
    std::thread a(reader(*smc, "TC0P", machineBytes(rig.machine, "TC0P")));
    std::thread b(reader(*smc, "F0Mx", machineBytes(rig.machine, "F0Mx")));
    std::thread c(reader(second, "TB0T", machineBytes(rig.machine, "TB0T")));
    a.join();
    b.join();
    c.join();
    EXPECT_EQ(rig.driver.unlockedSelectorUses(), 0u);
}

TEST(ApplesmcDeviceTest, FindsTheMainlineThenTheT2DeviceUnderTheRoot) {
    ostrel::platform::FakeEnvironment env;
    env.set("OSTREL_ROOT", "/sandbox");
    ostrel::platform::Paths paths(env);
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");

    FakeApplesmc t2(machine, FakeApplesmc::Variant::t2, "/sandbox/sys");
    auto t2files = t2.opener();
    EXPECT_EQ(csmc::findApplesmcDevice("", *t2files, paths),
              "/sandbox/sys/bus/acpi/devices/APP0001:00");
    FakeApplesmc mainline(machine, FakeApplesmc::Variant::mainline, "/sandbox/sys");
    auto mainlineFiles = mainline.opener();
    EXPECT_EQ(csmc::findApplesmcDevice("", *mainlineFiles, paths),
              "/sandbox/sys/devices/platform/applesmc.768");
    EXPECT_EQ(csmc::findApplesmcDevice("/sandbox/sys/devices/platform/applesmc.768/",
                                       *mainlineFiles, paths),
              "/sandbox/sys/devices/platform/applesmc.768");
    EXPECT_EQ(csmc::findApplesmcDevice("/sandbox/sys", *mainlineFiles, paths), std::nullopt);
    // What opening says when there is none: plain_files_test.cpp.
}

}  // namespace
