// The applesmc transport against a fake driver on the built-in virtual Macs, then the whole
// path from opening by selector, on plain files in a temporary OSTREL_ROOT.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <map>
#include <thread>

#include "csmc/applesmc.h"
#include "ostrel/smc.h"
#include "ostrel/vsmc/memory_transport.h"
#include "support/fake_applesmc.h"
#include "support/temp_dir.h"
#include "support/test_machine.h"
#include "support/transports.h"

namespace {

using ostrel::FourCC;
using ostrel::SMC;
using ostrel::SMCError;
using ostrel::test::errorOf;
using ostrel::test::FakeApplesmc;
using ostrel::vsmc::Machine;
using testing::HasSubstr;
using Variant = FakeApplesmc::Variant;

constexpr const char *kLock = "/run/dev.ostrel.applesmc.lock";

std::vector<std::uint8_t> machineBytes(const Machine &machine, FourCC key) {
    const ostrel::vsmc::KeyEntry *entry = machine.keys().find(key.rawValue);
    return {entry->bytes.begin(), entry->bytes.begin() + entry->size};
}

SMCError kernelError(std::uint32_t code) {
    return SMCError::kernel(static_cast<std::int32_t>(code));
}

// A machine behind the fake driver, and one root (or other) process's SMC connection,
// opened as the default transport opens it: the device is found at the variant's place.
struct Rig {
    Rig(const std::string &profile, Variant variant, unsigned uid = 0)
        : machine(ostrel::test::builtinMachine(profile)),
          driver(machine, variant),
          files(driver.opener(uid)),
          smc(std::make_unique<SMC>(open(*files))) {}
    std::unique_ptr<csmc::Transport> open(ostrel::platform::Sysfs &sysfs) {
        return csmc::openApplesmc("", sysfs, paths).transport;
    }

    Machine machine;
    FakeApplesmc driver;
    std::unique_ptr<ostrel::platform::Sysfs> files;
    ostrel::platform::FakeEnvironment env;
    ostrel::platform::Paths paths{env};
    std::unique_ptr<SMC> smc;
};

struct MachineCase {
    const char *name;
    const char *profile;
    Variant variant;
    // The attribute byte of the keys the driver can write (every other key reads 0x80):
    // the driver hides the real one, so the transport makes it up.
    std::map<std::string, std::uint8_t> writable;
    std::vector<std::pair<const char *, double>> refused;  // no fan file takes these
    std::vector<std::pair<const char *, double>> writes;
    std::string stores;  // what the writes leave in the fan files, in order
};

const MachineCase kMachines[] = {
    {"mainline",
     "macbookpro10-1",
     Variant::mainline,
     {{"FS! ", 0xC0}, {"F0Tg", 0xD0}, {"F1Tg", 0xD0}, {"F0Mn", 0xC0}, {"F1Mn", 0xC0}},
     // No fan file for bit 10: nothing is stored, not even the bits that have files.
     {{"TC0P", 40}, {"F0Mx", 6000}, {"FS! ", 1025}},
     // Fan 1 manual at 3000 rpm and back, then both fans at once, then nothing changed.
     {{"FS! ", 2}, {"F1Tg", 3000}, {"FS! ", 0}, {"FS! ", 3}, {"FS! ", 3}, {"F0Mn", 2400}},
     "fan2_manual=1 fan2_output=3000 fan2_manual=0 fan1_manual=1 fan2_manual=1 fan1_min=2400"},
    {"t2",
     "macbookpro16-1",
     Variant::t2,
     {{"F0Md", 0xD0},
      {"F1Md", 0xD0},
      {"F0Tg", 0xD0},
      {"F1Tg", 0xD0},
      {"F0Mn", 0xC0},
      {"F1Mn", 0xC0}},
     {{"F0Tg", 20000}, {"F0Md", 3}, {"F0Tg", -5}},
     {{"F0Md", 1}, {"F0Tg", 2500.7}, {"F1Tg", 1800}, {"F0Md", 0}},  // the driver takes whole rpm
     "fan1_manual=1 fan1_output=2500 fan2_output=1800 fan1_manual=0"},
};

class ApplesmcMachineTest : public testing::TestWithParam<MachineCase> {
  protected:
    Rig rig{GetParam().profile, GetParam().variant};
    std::unique_ptr<SMC> &smc = rig.smc;
};

TEST_P(ApplesmcMachineTest, EveryKeyHasTheSameInfoAndValueAsThroughTheMemoryTransport) {
    Machine reference = ostrel::test::builtinMachine(GetParam().profile);
    SMC memory(std::make_unique<ostrel::vsmc::MemoryTransport>(reference));
    std::vector<FourCC> keys = smc->allKeys();
    ASSERT_EQ(keys, memory.allKeys());
    ASSERT_EQ(smc->keyCount(), keys.size());
    for (FourCC key : keys) {
        SCOPED_TRACE(key.description());
        ostrel::SMCKeyInfo expected = memory.info(key);
        auto writable = GetParam().writable.find(key.description());
        expected.attributes = writable == GetParam().writable.end() ? 0x80 : writable->second;
        EXPECT_EQ(smc->info(key), expected);
        EXPECT_EQ(smc->read(key).bytes, memory.read(key).bytes);
    }
}

TEST_P(ApplesmcMachineTest, FanWritesBecomeTheDriversStoresAndTheRestAreFirmwareRefusals) {
    for (auto [key, value] : GetParam().refused) {
        SCOPED_TRACE(key);
        EXPECT_EQ(errorOf([&] { smc->write(key, value); }), SMCError::firmware(key));
    }
    std::map<std::string, double> last;
    for (auto [key, value] : GetParam().writes) {
        smc->write(key, value);
        last[key] = std::trunc(value);
    }
    EXPECT_EQ(rig.driver.fanStores(), GetParam().stores);
    for (auto [key, value] : last) {
        EXPECT_EQ(smc->readDouble(key.c_str()), value) << key;
    }
}

INSTANTIATE_TEST_SUITE_P(BuiltinMacs, ApplesmcMachineTest, testing::ValuesIn(kMachines),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ApplesmcPrivilegeTest, AProcessThatIsNotRootIsToldWhatNeedsRootAndChangesNothing) {
    Rig rig("macbookpro10-1", Variant::mainline, 1000);
    auto &smc = rig.smc;
    SMCError error = errorOf([&] { smc->write("F0Tg", 2500.0); });
    EXPECT_EQ(error, SMCError::notPrivileged());
    EXPECT_THAT(error.what(), HasSubstr("ostrel helper install"));
    // Selecting a key is a write to a root-only file, so on this driver reading needs root
    // as well; the message must say reading, not writing, and how to get it.
    error = errorOf([&] { smc->read("TC0P"); });
    EXPECT_EQ(error, kernelError(SMC_KERN_NOT_PERMITTED));
    EXPECT_THAT(error.explanation(),
                testing::AllOf(HasSubstr("reading SMC keys through the applesmc driver needs root"),
                               HasSubstr("sudo"), HasSubstr("ostrel helper install")));

    // Where the administrator lets the user select keys, the root-only lock is no obstacle.
    rig.driver.grantSelector(1000);
    EXPECT_EQ(smc->readDouble("F0Mx"), 5940);
    EXPECT_EQ(errorOf([&] { smc->write("F0Tg", 2500.0); }), SMCError::notPrivileged());
}

TEST(ApplesmcErrorsTest, DriverErrorsReachTheCallerAsKernelCodes) {
    Rig rig("macbookpro10-1", Variant::mainline);
    auto &smc = rig.smc;
    // A failed handshake inside the driver (a failed SMC transaction is the same EIO).
    rig.driver.failNext("key_at_index_data", EIO);
    SMCError error = errorOf([&] { smc->read("TC0P"); });
    EXPECT_EQ(error, kernelError(SMC_KERN_IO_ERROR));
    EXPECT_EQ(error.explanation(), "IOKit error 0xe00002ca (applesmc: reading " +
                                       rig.driver.device() +
                                       "/key_at_index_data: Input/output error)");
    EXPECT_NO_THROW(smc->read("TC0P"));  // nothing sticks

    // A value the driver refuses.
    rig.driver.failNext("fan1_output", EINVAL);
    EXPECT_EQ(errorOf([&] { smc->write("F0Tg", 3000.0); }), SMCError::firmware("F0Tg"));

    EXPECT_EQ(csmc::findApplesmcDevice(rig.driver.device() + "/", *rig.files, rig.paths),
              rig.driver.device());

    // The module goes away.
    rig.driver.detach();
    EXPECT_EQ(errorOf([&] { smc->read("TC0P"); }), kernelError(SMC_KERN_NO_DEVICE));
    EXPECT_EQ(errorOf([&] { smc->write("F0Tg", 3000.0); }), kernelError(SMC_KERN_NO_DEVICE));
    EXPECT_EQ(errorOf([&] { smc->info("TB0T"); }), kernelError(SMC_KERN_NO_DEVICE));
    EXPECT_EQ(errorOf([&] { smc->key(0); }), kernelError(SMC_KERN_NO_DEVICE));
}

class ApplesmcSelectorTest : public testing::Test {
  protected:
    // Another root process selects the last key (which sorts after every key read here)
    // right after our next `times` uses of the selector.
    void moveSelectorAfterSelects(unsigned times) {
        rig.driver.moveSelectorAfter(times, rig.machine.keys().size() - 1);
    }

    Rig rig{"macbookpro10-1", Variant::mainline};
    std::unique_ptr<SMC> &smc = rig.smc;
};

TEST_F(ApplesmcSelectorTest, UsesSpoiltByAMovedSelectorAreDoneAgainOrBusyAndKnownKeysNotSought) {
    smc->info("TC0P");
    smc->info("FS! ");
    moveSelectorAfterSelects(1000);
    EXPECT_EQ(errorOf([&] { smc->read("TC0P"); }), kernelError(SMC_KERN_BUSY));
    EXPECT_EQ(errorOf([&] { smc->write("FS! ", 1.0); }), kernelError(SMC_KERN_BUSY));
    EXPECT_EQ(errorOf([&] { smc->info("TB0T"); }), kernelError(SMC_KERN_BUSY));
    EXPECT_EQ(rig.driver.fanStores(), "");

    moveSelectorAfterSelects(2);
    EXPECT_EQ(smc->info("F0Mx").size, 2u);
    EXPECT_EQ(rig.driver.selectorMoves(), 2) << "a search";
    std::size_t before = rig.driver.accesses();
    smc->read("F0Mx");
    EXPECT_EQ(rig.driver.accesses() - before, 3u);  // select, data, name

    // Listing the keys tells the transport their indexes: describing one is then four
    // accesses (select, type, length, name) instead of a search.
    smc->allKeys();
    before = rig.driver.accesses();
    smc->info("F0Mn");
    EXPECT_EQ(rig.driver.accesses() - before, 4u);
    moveSelectorAfterSelects(1);
    EXPECT_EQ(smc->info("TB0T"), (ostrel::SMCKeyInfo{"TB0T", "sp78", 2, 0x80}));
    EXPECT_EQ(rig.driver.selectorMoves(), 1) << "a description";
    moveSelectorAfterSelects(1);
    EXPECT_EQ(smc->read("TB0T").bytes, machineBytes(rig.machine, "TB0T"));
    EXPECT_EQ(rig.driver.selectorMoves(), 1) << "a read";
}

TEST_F(ApplesmcSelectorTest, ConcurrentReadersHoldTheLockForEverySelectorUse) {
    // Two threads on one connection and a third process of its own.
    auto other = rig.driver.opener();
    SMC second(rig.open(*other));
    std::vector<std::thread> readers;
    for (auto [connection, key] :
         {std::pair{smc.get(), "TC0P"}, {smc.get(), "F0Mx"}, {&second, "TB0T"}}) {
        readers.emplace_back([connection, key, expected = machineBytes(rig.machine, key)] {
            for (int i = 0; i < 100; ++i) {
                EXPECT_EQ(connection->read(key).bytes, expected);
            }
        });
    }
    for (std::thread &reader : readers) {
        reader.join();
    }
    EXPECT_EQ(rig.driver.unlockedSelectorUses(), 0u);
}

// Plain files cannot act as a selector, so the tree holds one key only.
class ApplesmcPlainFilesTest : public testing::Test {
  protected:
    void SetUp() override {
        put("name", "applesmc\n");
        put("key_count", "1\n");
        put("key_at_index", "0\n");
        put("key_at_index_name", "FS! \n");
        put("key_at_index_type", "ui16\n");
        put("key_at_index_data_length", "2\n");
        put("key_at_index_data", std::string("\x00\x01", 2));
        put("fan1_manual", "1\n");
        put("fan2_manual", "0\n");
    }

    static constexpr const char *kDevice = "sys/devices/platform/applesmc.768/";
    void put(const std::string &name, const std::string &contents) {
        root.put(kDevice + name, contents);
    }
    std::string slurp(const std::string &name) { return root.read(kDevice + name); }
    SMC open(const std::string &selector) { return SMC(transports->open(selector)); }

    ostrel::test::TempDir root;
    ostrel::platform::FakeEnvironment env{{{"OSTREL_ROOT", root.path()}}};
    std::shared_ptr<csmc::TransportRegistry> transports = ostrel::test::allTransports(env);
};

TEST_F(ApplesmcPlainFilesTest, TheDefaultTransportUsesTheDeviceUnderTheRoot) {
    SMC smc = open("");
    EXPECT_EQ(smc.key(0), FourCC("FS! "));
    EXPECT_EQ(smc.readDouble("FS! "), 1);
    smc.write("FS! ", 2.0);
    EXPECT_EQ(slurp("fan1_manual") + slurp("fan2_manual") + slurp("key_at_index"), "010");
    EXPECT_TRUE(std::filesystem::exists(root.path() + kLock));

    put("key_count", "many\n");
    EXPECT_EQ(errorOf([&] { open("").info("TC0P"); }), kernelError(SMC_KERN_ERROR))
        << "garbled attributes are a kernel error, not a crash";
}

TEST_F(ApplesmcPlainFilesTest, WithoutADeviceThereIsNoService) {
    std::filesystem::remove_all(root.path() + "/sys");
    EXPECT_THROW(open(""), SMCError);
    EXPECT_EQ(SMC::openDetail(),
              "no SMC found (no applesmc device in " + root.path() +
                  "/sys/devices/platform/applesmc.768 or " + root.path() +
                  "/sys/bus/acpi/devices/APP0001:00 (is the applesmc module loaded?)); set "
                  "OSTREL_SMC to memory:PROFILE, vsmc:SOCKET or applesmc[:DIR]");
    EXPECT_THROW(open("applesmc"), SMCError);
    EXPECT_THAT(SMC::openDetail(), HasSubstr("is the applesmc module loaded?"));
    EXPECT_THROW(open("applesmc:" + root.path()), SMCError);
    EXPECT_EQ(SMC::openDetail(),
              root.path() + " is not an applesmc device (no key_count attribute)");
}

}  // namespace
