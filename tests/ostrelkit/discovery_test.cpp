// Hardware discovery on virtual machines, and its cache file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "ostrel/sampler.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using testing::ElementsAre;

// A machine, a connection to it, and a system whose files live in a temporary root.
class DiscoveryTest : public testing::Test, protected test::Sandbox {
  protected:
    std::unique_ptr<vsmc::Machine> machine;
    std::unique_ptr<SMC> smc;

    void use(vsmc::Machine m) {
        smc.reset();
        machine = std::make_unique<vsmc::Machine>(std::move(m));
        smc = std::make_unique<SMC>(std::make_unique<vsmc::MemoryTransport>(*machine));
    }
    void useRows(const std::string &rows) { use(test::machineFromRows(rows)); }

    const SensorDescriptor *sensor(const Discovery &d, const char *key) {
        for (const SensorDescriptor &s : d.sensors) {
            if (s.info.key == FourCC(key)) {
                return &s;
            }
        }
        return nullptr;
    }
};

TEST_F(DiscoveryTest, ForceMaskMachine) {
    use(test::builtinMachine("macbookpro10-1"));
    Discovery d = discover(*smc, "MacBookPro10,1", std::nullopt, system);
    EXPECT_EQ(d.keyCount, machine->keys().size());
    EXPECT_TRUE(d.fanForceKey);
    EXPECT_FALSE(d.fanTestKey);
    EXPECT_FALSE(d.hid);
    EXPECT_THAT(d.fans, ElementsAre(FanDescriptor{0, "Left side", false},
                                    FanDescriptor{1, "Right side", false}));
    const SensorDescriptor *proximity = sensor(d, "TC0P");
    ASSERT_NE(proximity, nullptr);
    EXPECT_EQ(*proximity, (SensorDescriptor{{"TC0P", "sp78", 2, 0xC0},
                                            Quantity::temperature,
                                            "CPU Proximity",
                                            SensorGroup::cpu,
                                            true,
                                            true}));
    EXPECT_EQ(sensor(d, "TS0P"), nullptr) << "-127 marks an unfitted sensor";
    EXPECT_EQ(sensor(d, "TCFP"), nullptr) << "integer types are not measurements";
    EXPECT_EQ(sensor(d, "VBAT"), nullptr) << "nor are flags";
    ASSERT_NE(sensor(d, "PC0C"), nullptr);
    EXPECT_FALSE(sensor(d, "PC0C")->known) << "unlisted power keys are kept, unknown";
    EXPECT_EQ(sensor(d, "PC0C")->group, SensorGroup::other);
    // No board or storage temperature is essential by itself: the hottest is promoted.
    EXPECT_TRUE(sensor(d, "TPCD")->essential);
    EXPECT_FALSE(sensor(d, "TW0P")->essential);
    EXPECT_TRUE(sensor(d, "TH0P")->essential);
}

TEST_F(DiscoveryTest, ModeKeyAndTestKeyMachines) {
    use(test::builtinMachine("macbookpro16-1"));
    Discovery t2 = discover(*smc, "MacBookPro16,1", std::nullopt, system);
    EXPECT_FALSE(t2.fanForceKey);
    EXPECT_FALSE(t2.fanTestKey);
    EXPECT_THAT(t2.fans,
                ElementsAre(FanDescriptor{0, "Fan 1", true}, FanDescriptor{1, "Fan 2", true}));
    EXPECT_EQ(sensor(t2, "F0Ac"), nullptr);

    use(test::builtinMachine("macbookpro18-2"));
    Discovery silicon = discover(*smc, "MacBookPro18,2", std::nullopt, system);
    EXPECT_TRUE(silicon.fanTestKey);
    EXPECT_FALSE(silicon.fanForceKey);
    ASSERT_NE(sensor(silicon, "Tp01"), nullptr);
    EXPECT_EQ(sensor(silicon, "Tp01")->name, "CPU P-Core 01");
    EXPECT_TRUE(sensor(silicon, "Tp01")->essential);
    EXPECT_EQ(sensor(silicon, "Tg0f")->group, SensorGroup::gpu);
    EXPECT_EQ(sensor(silicon, "TCMb"), nullptr) << "an unfitted flt sensor";
}

// Keys shaped like Apple silicon's per-core temperatures are cores only on Apple silicon;
// on Intel they are other sensors and must not steer the CPU curve or the failsafe.
TEST_F(DiscoveryTest, PerCoreShapedKeysAreCoresOnlyOnAppleSilicon) {
    const std::string rows =
        "key TC0D sp78 2 0xc0 50\nkey Te0T sp78 2 0xc0 80\n"
        "key Tg0D sp78 2 0xc0 85\nkey Tp1P sp78 2 0xc0 90\n";
    struct Case {
        const char *machine;
        std::string extraRows;
        std::string hwmonChip;  // the services Linux finds, when any
        bool appleSilicon;
    };
    for (const Case &c :
         {Case{"Intel", "", "", false}, Case{"Intel with coretemp", "", "coretemp", false},
          Case{"test key", "key Ftst ui8 1 0xd0 0\n", "", true},
          Case{"Apple-silicon sensor chip", "", "macsmc_hwmon", true}}) {
        SCOPED_TRACE(c.machine);
        std::filesystem::remove_all(root.path() + "/sys");
        if (!c.hwmonChip.empty()) {
            root.put("sys/class/hwmon/hwmon0/name", c.hwmonChip + "\n");
            root.put("sys/class/hwmon/hwmon0/temp1_input", "40000\n");
        }
        vsmc::Machine m = test::machineFromRows(rows + c.extraRows);
        auto bare = std::make_shared<SMC>(std::make_unique<test::BareMemoryTransport>(m));
        Sampler sampler(bare, SamplerScope::essential, false, system);
        const SensorDescriptor *core = sensor(sampler.discovery(), "Tp1P");
        ASSERT_NE(core, nullptr);
        Snapshot essential = sampler.sample();
        std::vector<std::string> read;
        for (const Reading &r : essential.temperatures()) {
            read.push_back(r.key);
        }
        if (c.appleSilicon) {
            EXPECT_EQ(*core, (SensorDescriptor{core->info, Quantity::temperature, "CPU P-Core 1P",
                                               SensorGroup::cpu, true, true}));
            EXPECT_THAT(read, ElementsAre("TC0D", "Te0T", "Tg0D", "Tp1P"));
            EXPECT_EQ(essential.temperature(CurveSensor::cpu), 90);
        } else {
            EXPECT_EQ(*core, (SensorDescriptor{core->info, Quantity::temperature, "Tp1P",
                                               SensorGroup::other, false, false}));
            EXPECT_EQ(sensor(sampler.discovery(), "Tg0D")->group, SensorGroup::other);
            EXPECT_THAT(read, ElementsAre("TC0D")) << "the tick reads only what it uses";
            EXPECT_EQ(essential.temperature(CurveSensor::cpu), 50);
            EXPECT_EQ(essential.temperature(CurveSensor::gpu), 50) << "no GPU: the hottest";
        }
    }
}

TEST_F(DiscoveryTest, EssentialPromotionPerGroup) {
    useRows(
        "key Tm0P sp78 2 0xc0 45\n"  // board: the only known one, promoted
        "key TA1P sp78 2 0xc0 30\n"  // ambient: equal values, the earlier key wins
        "key Ts1P sp78 2 0xc0 30\n"
        "key TM0P sp78 2 0xc0 50\n"  // memory: essential already
        "key TM0S sp78 2 0xc0 60\n"
        "key TZ9Z sp78 2 0xc0 90\n"   // unknown: never promoted
        "key TC0P sp78 2 0xc0 0.5\n"  // implausible: not a sensor at all
        "key TC0D flt  4 0xc0 140\n");
    Discovery d = discover(*smc, "Test,1", std::nullopt, system);
    std::vector<std::string> essentials;
    for (const SensorDescriptor &s : d.sensors) {
        if (s.essential) {
            essentials.push_back(s.info.key.description());
        }
    }
    EXPECT_THAT(essentials, ElementsAre("TA1P", "TM0P", "Tm0P"));
    EXPECT_EQ(sensor(d, "TC0P"), nullptr);
    EXPECT_EQ(sensor(d, "TC0D"), nullptr);
    EXPECT_FALSE(sensor(d, "TZ9Z")->essential);
}

TEST_F(DiscoveryTest, FanCountsAndNames) {
    for (const char *one : {"key FNum ui8 1 0x80 1\n", "key FNum flt 4 0x80 1.5\n"}) {
        useRows(one);
        EXPECT_THAT(discover(*smc, "m", std::nullopt, system).fans,
                    ElementsAre(FanDescriptor{0, "Fan", false}))
            << one;
    }
    useRows(
        "key FNum ui8 1 0x80 2\n"
        "key F0ID {fds 4 0x80 <00 00 0c 00>\n"               // no room for a name
        "key F1ID {fds 16 0x80 <00 00 0c 00> \" \\x09 \"\n"  // only blanks
        "key F1Md ui8 1 0xd0 0\n");
    EXPECT_THAT(discover(*smc, "m", std::nullopt, system).fans,
                ElementsAre(FanDescriptor{0, "Fan 1", false}, FanDescriptor{1, "Fan 2", true}));
    useRows("key FNum ui8 1 0x80 20\nkey FFID {fds 16 0x80 <00 00 00 00> \"  Rear \"\n");
    std::vector<FanDescriptor> fans = discover(*smc, "m", std::nullopt, system).fans;
    ASSERT_EQ(fans.size(), 16u);
    EXPECT_EQ(fans.back().name, "Rear");
    EXPECT_EQ(fans.back().targetKey(), FourCC("FFTg"));
    useRows("key FNum flt 4 0x80 -1\n");
    EXPECT_TRUE(discover(*smc, "m", std::nullopt, system).fans.empty());
    useRows("");
    EXPECT_TRUE(discover(*smc, "m", std::nullopt, system).fans.empty()) << "no FNum, no fans";
}

TEST_F(DiscoveryTest, KeyCountFailureIsTheOnlyError) {
    useRows("key TC0P sp78 2 0xc0 50\n");
    machine->injectFault({FourCC("#KEY").rawValue, SMC_CMD_READ, 1, SMC_KERN_IO_ERROR, 0});
    EXPECT_THROW(discover(*smc, "m", std::nullopt, system), SMCError);
    machine->injectFault({std::nullopt, SMC_CMD_KEY_AT_INDEX, 1, SMC_KERN_IO_ERROR, 0});
    machine->injectFault({FourCC("TC0P").rawValue, std::nullopt, 5, 0, 0x85});
    Discovery d = discover(*smc, "m", std::nullopt, system);
    EXPECT_TRUE(d.sensors.empty()) << "a failing key is dropped, the scan goes on";
}

TEST(DiscoveryCacheFormat, WritesTheDocumentedLinesAndReadsThemBack) {
    Discovery d;
    d.model = "MacBookPro16,1";
    d.keyCount = 1234;
    d.fanForceKey = true;
    d.hid = true;
    d.sensors = {{{"TC0P", "flt ", 4, 128},
                  Quantity::temperature,
                  "CPU Proximity",
                  SensorGroup::cpu,
                  true,
                  true},
                 {{"PZ9Z", "sp87", 2, 192},
                  Quantity::power,
                  " leading blank  and two",
                  SensorGroup::other,
                  false,
                  false}};
    d.fans = {{0, "Left side", true}, {1, "", false}};
    std::string text = d.cacheData();
    EXPECT_EQ(text,
              "ostrel-discovery 2 1234 1 0 1\n"
              "model MacBookPro16,1\n"
              "s 54433050 666c7420 4 128 temperature CPU 1 1 CPU Proximity\n"
              "s 505a395a 73703837 2 192 power Other 0 0  leading blank  and two\n"
              "f 0 1 Left side\n"
              "f 1 0 \n");
    EXPECT_EQ(Discovery::fromCache(text), d);
}

TEST(DiscoveryCacheFormat, InvalidFilesAreRejected) {
    const std::string good = "ostrel-discovery 2 10 0 0 0\nmodel M\n";
    ASSERT_TRUE(Discovery::fromCache(good));
    for (const std::string &bad : {
             std::string("ostrel-discovery 3 10 0 0 0\n"),                // version 3
             std::string(""),                                             // no header
             good + "x whatever\n",                                       // unknown line
             good + "s 54433050 666c7420 4 128 temperature CPU 1 1\n",    // 9 fields
             good + "s 5443305A 666c7420 4 128 temperature CPU 1 1 N\n",  // upper-case hex
             good + "s 54433050 666c7420 4 128 Temperature CPU 1 1 N\n",  // wrong case
             good + "s 54433050 666c7420 4 128 temperature cpu 1 1 N\n",
             good + "s 54433050 666c7420 4a 128 temperature CPU 1 1 N\n",  // hex in decimal
             good + "f -1 0 Fan\n",
             good + "f 0 0\n",
         }) {
        EXPECT_FALSE(Discovery::fromCache(bad)) << bad;
    }
}

TEST(DiscoveryCacheFormat, LenientWhereTheFormatIsLenient) {
    auto d = Discovery::fromCache(
        "\n\noops-not-magic 2 4294967297 1x 0 \n"  // magic not compared; key count wraps
        "m\n"                                      // a short model line: empty model
        "model \xff\n"                             // a later one replaces it
        "s 54433050 666c7420 4 300 temperature CPU  1 N\xc3\n");
    ASSERT_TRUE(d);
    EXPECT_EQ(d->keyCount, 1u);
    EXPECT_TRUE(d->fanForceKey);
    EXPECT_FALSE(d->hid);
    EXPECT_EQ(d->model, "\uFFFD");
    ASSERT_EQ(d->sensors.size(), 1u);
    EXPECT_EQ(d->sensors[0].info.attributes, 44) << "300 wraps at 8 bits";
    EXPECT_FALSE(d->sensors[0].known) << "an empty flag field is false";
    EXPECT_EQ(d->sensors[0].name, "N\uFFFD");
}

class LoadDiscoveryTest : public DiscoveryTest {
  protected:
    void SetUp() override { use(test::builtinMachine("macbookpro10-1")); }
    std::string cacheFile() { return root.path() + "/.cache/dev.ostrel/discovery-v2.txt"; }
};

TEST_F(LoadDiscoveryTest, ASecondLoadReadsTheFileAndSeedsTheChannel) {
    Discovery first = loadDiscovery(*smc, true, system);
    ASSERT_TRUE(root.read(".cache/dev.ostrel/discovery-v2.txt").starts_with("ostrel-discovery 2"));
    // A new process: a fresh connection whose cache is empty.
    smc = std::make_unique<SMC>(std::make_unique<vsmc::MemoryTransport>(*machine));
    machine->clearJournal();
    Discovery second = loadDiscovery(*smc, true, system);
    EXPECT_EQ(second, first);
    EXPECT_EQ(machine->count(SMC_CMD_KEY_AT_INDEX), 0u);
    std::uint64_t infoBefore = machine->count(SMC_CMD_KEY_INFO);
    for (const SensorDescriptor &s : second.sensors) {
        smc->readDouble(s.info.key);
    }
    EXPECT_EQ(machine->count(SMC_CMD_KEY_INFO), infoBefore) << "seeded from the file";
}

TEST_F(LoadDiscoveryTest, AStaleOrBrokenFileIsRescannedAndOverwritten) {
    root.put(".cache/dev.ostrel/discovery-v2.txt",
             "ostrel-discovery 2 1 0 0 0\nmodel MacBookPro10,1\n");  // wrong key count
    Discovery d = loadDiscovery(*smc, true, system);
    EXPECT_FALSE(d.sensors.empty());
    EXPECT_EQ(Discovery::fromCache(root.read(".cache/dev.ostrel/discovery-v2.txt")), d);

    root.put(".cache/dev.ostrel/discovery-v2.txt", d.cacheData() + "garbage\n");
    machine->clearJournal();
    loadDiscovery(*smc, true, system);
    EXPECT_GT(machine->count(SMC_CMD_KEY_AT_INDEX), 0u) << "an invalid file means a rescan";

    Discovery other = d;
    other.model = "MacBookPro11,1";
    root.put(".cache/dev.ostrel/discovery-v2.txt", other.cacheData());
    EXPECT_EQ(loadDiscovery(*smc, true, system).model, "MacBookPro10,1");

    // A valid file that others may write could have been planted: it is not read.
    Discovery planted = d;
    planted.sensors.resize(1);
    std::string file = root.put(".cache/dev.ostrel/discovery-v2.txt", planted.cacheData());
    std::filesystem::permissions(file, std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    EXPECT_EQ(loadDiscovery(*smc, true, system), d);
}

TEST_F(LoadDiscoveryTest, WithoutTheCacheNoFileIsReadOrWrittenAndClearCacheRemovesIt) {
    loadDiscovery(*smc, false, system);
    EXPECT_FALSE(platform::realFiles().read(cacheFile()));
    loadDiscovery(*smc, true, system);
    EXPECT_TRUE(platform::realFiles().read(cacheFile()));
    clearCache(system);
    EXPECT_FALSE(platform::realFiles().read(cacheFile()));
    clearCache(system);  // no file: nothing happens
}

}  // namespace
