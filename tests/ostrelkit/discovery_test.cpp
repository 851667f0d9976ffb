// Hardware discovery on virtual machines, and its cache file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "ostrel/sampler.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using testing::ElementsAre;
using G = SensorGroup;
using Q = Quantity;

// The sensor a discovery kept for a key, or nothing when it left the key out.
std::optional<SensorDescriptor> sensorIn(const Discovery &d, const char *key) {
    auto found = std::ranges::find(d.sensors, FourCC(key), [](auto &s) { return s.info.key; });
    return found == d.sensors.end() ? std::nullopt : std::optional(*found);
}

// The keys of a discovery's sensors in key-index order; with `essentialOnly`, only those
// read under the essential scope.
std::vector<std::string> sensorKeys(const Discovery &d, bool essentialOnly = false) {
    std::vector<std::string> out;
    for (const SensorDescriptor &s : d.sensors) {
        if (s.essential || !essentialOnly) {
            out.push_back(s.info.key.description());
        }
    }
    return out;
}

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
    Discovery discoverRows(const std::string &rows) {
        use(test::machineFromRows(rows));
        return discover(*smc, "m", std::nullopt, system);
    }
};

// The key count, fan names and fan control of a scan show in the CLI's discovery summary
// and in the fan writer's tests on the builtin machines; here, which keys become sensors.
TEST_F(DiscoveryTest, WhichKeysAreSensorsAndWhichEssential) {
    use(test::builtinMachine("macbookpro10-1"));
    Discovery d = discover(*smc, "MacBookPro10,1", std::nullopt, system);
    // -127 marks an unfitted sensor; integer types and flags are not measurements.
    EXPECT_THAT(sensorKeys(d),
                testing::Not(testing::Contains(testing::AnyOf("TS0P", "TCFP", "VBAT"))));
    EXPECT_EQ(sensorIn(d, "PC0C"), (SensorDescriptor{{"PC0C", "sp96", 2, 0xC0}, Q::power, "PC0C"}))
        << "unlisted power keys are kept, unknown";
    // No board or storage temperature is essential by itself: the hottest is promoted.
    // (TPCD is, TW0P is not, and the one storage key TH0P is.)
    EXPECT_THAT(sensorKeys(d, true), ElementsAre("PCPC", "PCPG", "PCPT", "PDTR", "PG0R", "PSTR",
                                                 "TA0V", "TB0T", "TC0D", "TC0E", "TC0P", "TCXC",
                                                 "TG0D", "TG0P", "TH0P", "TM0P", "TPCD", "Ts0P"));
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
        std::optional<SensorDescriptor> core = sensorIn(sampler.discovery(), "Tp1P");
        ASSERT_TRUE(core);
        Snapshot essential = sampler.sample();
        // The tick reads only what it uses: on Intel, TC0D alone.
        EXPECT_EQ(essential.temperatures().size(), c.appleSilicon ? 4u : 1u);
        if (c.appleSilicon) {
            EXPECT_EQ(*core, (SensorDescriptor{core->info, Q::temperature, "CPU P-Core 1P", G::cpu,
                                               true, true}));
            EXPECT_EQ(essential.temperature(CurveSensor::cpu), 90);
        } else {
            EXPECT_EQ(*core, (SensorDescriptor{core->info, Q::temperature, "Tp1P"}));
            EXPECT_EQ(essential.temperature(CurveSensor::cpu), 50);
            EXPECT_EQ(essential.temperature(CurveSensor::gpu), 50) << "no GPU: the hottest";
        }
    }
}

TEST_F(DiscoveryTest, EssentialPromotionPerGroupAndImplausibleKeys) {
    Discovery d = discoverRows(
        "key Tm0P sp78 2 0xc0 45\n"  // board: the only known one, promoted
        "key TA1P sp78 2 0xc0 30\n"  // ambient: equal values, the earlier key wins
        "key Ts1P sp78 2 0xc0 30\n"
        "key TM0P sp78 2 0xc0 50\n"  // memory: essential already
        "key TM0S sp78 2 0xc0 60\n"
        "key TZ9Z sp78 2 0xc0 90\n"   // unknown: never promoted
        "key TC0P sp78 2 0xc0 0.5\n"  // implausible: not a sensor at all
        "key TC0D flt  4 0xc0 140\n");
    EXPECT_THAT(sensorKeys(d), ElementsAre("TA1P", "TM0P", "TM0S", "TZ9Z", "Tm0P", "Ts1P"));
    EXPECT_THAT(sensorKeys(d, true), ElementsAre("TA1P", "TM0P", "Tm0P"));
}

TEST_F(DiscoveryTest, FanCountsAndNames) {
    for (const char *one : {"key FNum ui8 1 0x80 1\n", "key FNum flt 4 0x80 1.5\n"}) {
        EXPECT_THAT(discoverRows(one).fans, ElementsAre(FanDescriptor{0, "Fan", false})) << one;
    }
    EXPECT_THAT(discoverRows("key FNum ui8 1 0x80 2\n"
                             "key F0ID {fds 4 0x80 <00 00 0c 00>\n"  // no room for a name
                             "key F1ID {fds 16 0x80 <00 00 0c 00> \" \\x09 \"\n"  // only blanks
                             "key F1Md ui8 1 0xd0 0\n")
                    .fans,
                ElementsAre(FanDescriptor{0, "Fan 1", false}, FanDescriptor{1, "Fan 2", true}));
    std::vector<FanDescriptor> fans =
        discoverRows("key FNum ui8 1 0x80 20\nkey FFID {fds 16 0x80 <00 00 00 00> \"  Rear \"\n")
            .fans;
    ASSERT_EQ(fans.size(), 16u);
    EXPECT_EQ(fans.back(), (FanDescriptor{15, "Rear", false}));
    for (const char *none : {"key FNum flt 4 0x80 -1\n", ""}) {
        EXPECT_TRUE(discoverRows(none).fans.empty()) << "no FNum, no fans: " << none;
    }
}

TEST_F(DiscoveryTest, KeyCountFailureIsTheOnlyError) {
    use(test::machineFromRows("key TC0P sp78 2 0xc0 50\n"));
    machine->injectFault({FourCC("#KEY").rawValue, SMC_CMD_READ, 1, SMC_KERN_IO_ERROR, 0});
    EXPECT_THROW(discover(*smc, "m", std::nullopt, system), SMCError);
    machine->injectFault({std::nullopt, SMC_CMD_KEY_AT_INDEX, 1, SMC_KERN_IO_ERROR, 0});
    machine->injectFault({FourCC("TC0P").rawValue, std::nullopt, 5, 0, 0x85});
    Discovery d = discover(*smc, "m", std::nullopt, system);
    EXPECT_TRUE(d.sensors.empty()) << "a failing key is dropped, the scan goes on";
}

TEST(DiscoveryCacheFormat, WritesTheDocumentedLinesAndReadsThemBack) {
    Discovery d{
        .model = "MacBookPro16,1",
        .keyCount = 1234,
        .sensors = {{{"TC0P", "flt ", 4, 128}, Q::temperature, "CPU Proximity", G::cpu, true, true},
                    {{"PZ9Z", "sp87", 2, 192}, Q::power, " leading blank  and two"}},
        .fans = {{0, "Left side", true}, {1, "", false}},
        .fanForceKey = true,
        .hid = true};
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

TEST(DiscoveryCacheFormat, InvalidFilesAreRejectedAndTheRestReadLeniently) {
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

    // Lenient where the format is lenient.
    EXPECT_EQ(
        Discovery::fromCache(
            "\n\noops-not-magic 2 4294967297 1x 0 \n"  // magic not compared; count wraps
            "m\n"                                      // a short model line: empty model
            "model \xff\n"                             // a later one replaces it
            "s 54433050 666c7420 4 300 temperature CPU  1 N\xc3\n"),  // 300 wraps at 8 bits
        (Discovery{
            .model = "\uFFFD",
            .keyCount = 1,
            // An empty flag field is false.
            .sensors = {{{"TC0P", "flt ", 4, 44}, Q::temperature, "N\uFFFD", G::cpu, false, true}},
            .fans = {},
            .fanForceKey = true}));
}

TEST_F(DiscoveryTest, LoadingReadsAValidFileWritesAnyOtherAndClearCacheRemovesIt) {
    use(test::builtinMachine("macbookpro10-1"));
    const std::string cache = ".cache/dev.ostrel/discovery-v2.txt";
    loadDiscovery(*smc, false, system);
    EXPECT_EQ(root.read(cache), "") << "without the cache no file is written";
    Discovery first = loadDiscovery(*smc, true, system);
    EXPECT_EQ(Discovery::fromCache(root.read(cache)), first);
    // A new process: a fresh connection whose cache is empty.
    smc = std::make_unique<SMC>(std::make_unique<vsmc::MemoryTransport>(*machine));
    machine->clearJournal();
    EXPECT_EQ(loadDiscovery(*smc, true, system), first);  // no scan: the CLI's summary test
    std::uint64_t infoBefore = machine->count(SMC_CMD_KEY_INFO);
    for (const SensorDescriptor &s : first.sensors) {
        smc->readDouble(s.info.key);
    }
    EXPECT_EQ(machine->count(SMC_CMD_KEY_INFO), infoBefore) << "seeded from the file";

    // A file that is stale, broken, of another machine, or that others may write (it could
    // have been planted) is not believed: the SMC is scanned again.
    Discovery otherModel = first;
    otherModel.model = "MacBookPro11,1";
    Discovery planted = first;
    planted.sensors.resize(1);
    struct Stale {
        const char *why;
        std::string text;
        bool othersMayWrite = false;
    };
    for (const Stale &s :
         {Stale{"wrong key count", "ostrel-discovery 2 1 0 0 0\nmodel MacBookPro10,1\n"},
          Stale{"garbage", first.cacheData() + "garbage\n"},
          Stale{"another model", otherModel.cacheData()},
          Stale{"others may write it", planted.cacheData(), true}}) {
        SCOPED_TRACE(s.why);
        std::string file = root.put(cache, s.text);
        if (s.othersMayWrite) {
            std::filesystem::permissions(file, std::filesystem::perms::others_write,
                                         std::filesystem::perm_options::add);
        }
        machine->clearJournal();
        EXPECT_EQ(loadDiscovery(*smc, true, system), first);
        EXPECT_GT(machine->count(SMC_CMD_KEY_AT_INDEX), 0u);
        EXPECT_EQ(Discovery::fromCache(root.read(cache)), first) << "and the file rewritten";
    }
    clearCache(system);
    EXPECT_EQ(root.read(cache), "");
    clearCache(system);  // no file: nothing happens
}

}  // namespace
