// The sampler: scopes, parts and groups, exchange costs, temperature-sensor services, fan
// limits on an injected clock, the force mask and the battery.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "ostrel/battery.h"
#include "ostrel/sampler.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

std::vector<std::string> keysOf(const std::vector<Reading> &readings) {
    std::vector<std::string> out;
    for (const Reading &r : readings) {
        out.push_back(r.key);
    }
    return out;
}

const char *kRows =
    "key TC0P sp78 2 0xc0 60\n"    // essential CPU
    "key TC0F sp78 2 0xc0 55\n"    // known CPU, not essential
    "key TG0P sp78 2 0xc0 50\n"    // essential GPU
    "key TZ9Z sp78 2 0xc0 40\n"    // unknown
    "key TB0T sp78 2 0xc0 31.5\n"  // essential battery
    "key PSTR sp87 2 0xc0 20\n"    // essential power
    "key PZ9Z sp87 2 0xc0 1\n"     // unknown power
    "key FNum ui8  1 0x80 2\n"
    "key FS!  ui16 2 0xc0 0\n"
    "key F0Ac fpe2 2 0x90 2000\n"
    "key F0Mn fpe2 2 0xc0 1200\n"
    "key F0Mx fpe2 2 0xc0 6000\n"
    "key F0Tg fpe2 2 0xd0 2500\n"
    "key F1Ac fpe2 2 0x90 1000\n"
    "key F1Md ui8  1 0xd0 0\n"
    "key F1Tg fpe2 2 0xd0 3000\n";

class SamplerTest : public testing::Test, protected test::Sandbox {
  protected:
    vsmc::Machine machine = test::machineFromRows(kRows);
    std::shared_ptr<SMC> smc =
        std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));

    std::unique_ptr<Sampler> make(SamplerScope scope) {
        return std::make_unique<Sampler>(smc, scope, false, system);
    }
    void set(const char *key, double value) { test::setNumber(machine, key, value); }
    void hwmon(const std::string &chip, std::vector<std::pair<std::string, int>> temps) {
        static int n = 0;
        std::string dir = "sys/class/hwmon/hwmon" + std::to_string(n++) + "/";
        root.put(dir + "name", chip + "\n");
        for (std::size_t i = 0; i < temps.size(); ++i) {
            root.put(dir + "temp" + std::to_string(i + 1) + "_label", temps[i].first);
            root.put(dir + "temp" + std::to_string(i + 1) + "_input",
                     std::to_string(temps[i].second));
        }
    }
};

TEST_F(SamplerTest, EssentialScopeReadsOneExchangePerValueOnceWarm) {
    auto sampler = make(SamplerScope::essential);
    sampler->parts = {SamplerParts::temperatures, SamplerParts::fans};
    sampler->sample();  // warms the key-information cache and reads the fan limits
    machine.clearJournal();
    sampler->sample();
    // 3 temperatures (TB0T, TC0P, TG0P, as the CLI's essential JSON shows), FS!, F0Ac, F1Ac, F1Md:
    // one read each, nothing else.
    EXPECT_EQ(machine.count(SMC_CMD_READ), 7u);
    EXPECT_EQ(machine.totalExchanges(), 7u);
}

TEST_F(SamplerTest, ScopesPartsGroupsAndPlausibleTemperatures) {
    // The CLI's `sensors --scope all` shows every temperature; here the implausible go.
    auto sampler = make(SamplerScope::all);
    set("TC0P", 127.5);
    set("TG0P", 1.0);
    Snapshot s = sampler->sample();
    EXPECT_THAT(keysOf(s.temperatures()), ElementsAre("TB0T", "TC0F", "TC0P", "TZ9Z"));
    EXPECT_THAT(keysOf(s.power()), ElementsAre("PSTR", "PZ9Z"));
    set("TC0P", -127);
    EXPECT_THAT(keysOf(sampler->sample().temperatures()), ElementsAre("TB0T", "TC0F", "TZ9Z"));

    sampler->scope = SamplerScope::known;
    sampler->groups = std::set<SensorGroup>{SensorGroup::cpu};
    sampler->parts = {SamplerParts::temperatures, SamplerParts::power};
    Snapshot cpu = sampler->sample();
    EXPECT_THAT(keysOf(cpu.temperatures()), ElementsAre("TC0F"));  // TC0P reads -127
    EXPECT_THAT(keysOf(cpu.power()), ElementsAre("PSTR"));
    EXPECT_TRUE(cpu.fans().empty());

    sampler->groups = std::set<SensorGroup>{};
    EXPECT_TRUE(sampler->sample().temperatures().empty());
}

TEST_F(SamplerTest, FanLimitsAreCachedOnTheInjectedClock) {
    auto sampler = make(SamplerScope::essential);
    sampler->parts = SamplerParts::fans;
    auto limitReads = [&] {
        return std::ranges::count_if(machine.journal(), [](const vsmc::ExchangeRecord &r) {
            return r.command == SMC_CMD_READ && r.key == FourCC("F0Mn").rawValue;
        });
    };
    sampler->sample();
    // Exactly 30 s old is not older than 30 s.
    for (auto [advance, reads] : {std::pair{10000ms, 1}, {20000ms, 1}, {1ms, 2}}) {
        clock.advance(advance);
        sampler->sample();
        EXPECT_EQ(limitReads(), reads) << advance.count();
    }
    sampler->invalidateFanLimits();
    sampler->sample();
    EXPECT_EQ(limitReads(), 3u);
    sampler->fanLimitRefresh = 0;
    clock.advance(1ms);
    sampler->sample();
    EXPECT_EQ(limitReads(), 4u);
}

TEST_F(SamplerTest, ManualFromModeKeyOrForceMaskAndTargetsOnlyWhenManual) {
    auto sampler = make(SamplerScope::essential);
    machine.keys().put({FourCC("F1Ac").rawValue, FourCC("si16").rawValue, 2, 0x90, {0, 0}});
    set("F1Ac", 1000);  // a signed speed key, to read a negative speed below
    sampler->parts = SamplerParts::fans;
    // Limits that cannot be read are 0; there is no target unless manual, though the key
    // exists.
    EXPECT_THAT(sampler->sample().fans(),
                ElementsAre(FanReading{0, "Fan 1", 2000, 1200, 6000, std::nullopt, false},
                            FanReading{1, "Fan 2", 1000, 0, 0, std::nullopt, false}));

    set("FS! ", 3);  // both bits; fan 1's mode key still reads 0
    EXPECT_THAT(sampler->sample().fans(),
                ElementsAre(FanReading{0, "Fan 1", 2000, 1200, 6000, 2500, true},
                            FanReading{1, "Fan 2", 1000, 0, 0, 3000, true}));

    set("FS! ", 0);
    set("F1Md", 1);
    set("F1Ac", -3);  // a negative speed reads as 0
    EXPECT_THAT(sampler->sample().fans(),
                ElementsAre(FanReading{0, "Fan 1", 2000, 1200, 6000, std::nullopt, false},
                            FanReading{1, "Fan 2", 0, 0, 0, 3000, true}));

    machine.injectFault({FourCC("F0Ac").rawValue, SMC_CMD_READ, 1, SMC_KERN_IO_ERROR, 0});
    EXPECT_THAT(sampler->sample().fans(), ElementsAre(testing::Field(&FanReading::id, 1)))
        << "a fan whose speed cannot be read is left out";
}

TEST_F(SamplerTest, TemperatureServicesAreNamedWithOccurrenceCountsAndIgnoreGroups) {
    hwmon("macsmc_hwmon", {{"PMU tdie1", 41000}, {"PMU tdie1", 42000}, {"PMU tdie2", 43000}});
    hwmon("nvme", {{"Composite", 160000}});  // implausible: skipped by the service layer
    smc = std::make_shared<SMC>(std::make_unique<test::BareMemoryTransport>(machine));
    auto sampler = make(SamplerScope::known);
    EXPECT_TRUE(sampler->discovery().hid);
    sampler->parts = SamplerParts::temperatures;
    sampler->groups = std::set<SensorGroup>{};
    Snapshot s = sampler->sample();
    EXPECT_THAT(
        s.temperatures(),
        ElementsAre(Reading{"hid:SMC PMU tdie1", "SMC PMU tdie1", SensorGroup::cpu, 41, true},
                    Reading{"hid:SMC PMU tdie1 2", "SMC PMU tdie1 2", SensorGroup::cpu, 42, true},
                    Reading{"hid:SMC PMU tdie2", "SMC PMU tdie2", SensorGroup::cpu, 43, true}));
    sampler->scope = SamplerScope::essential;
    EXPECT_TRUE(sampler->sample().temperatures().empty()) << "no services under essential";

    // A virtual Mac's services come through its own connection; the host's are not its.
    vsmc::Machine silicon = test::builtinMachine("macbookpro18-2");
    smc = std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(silicon));
    sampler = make(SamplerScope::known);
    sampler->parts = SamplerParts::temperatures;
    EXPECT_THAT(keysOf(sampler->sample().temperatures()),
                AllOf(Contains("hid:pACC MTR Temp Sensor0"), Not(Contains("hid:SMC PMU tdie1"))));
}

TEST_F(SamplerTest, BatteryTemperatureFallsBackToTB0T) {
    root.put("sys/class/power_supply/BAT0/type", "Battery\n");
    root.put("sys/class/dmi/id/product_name", "MacBookPro10,1\n");
    smc = std::make_shared<SMC>(std::make_unique<test::BareMemoryTransport>(machine));
    auto sampler = make(SamplerScope::essential);
    EXPECT_EQ(sampler->discovery().model, "MacBookPro10,1") << "from DMI on real hardware";
    sampler->parts = {SamplerParts::battery, SamplerParts::temperatures};
    EXPECT_EQ(sampler->sample().battery().value().temperature, 31.5)
        << "from this sample's TB0T reading";
    sampler->parts = SamplerParts::battery;
    set("TB0T", 33);
    EXPECT_EQ(sampler->sample().battery().value().temperature, 33) << "from a direct read";
}

TEST(BatteryParse, FieldsFromTheDictionary) {
    auto parse = [](const char *text) { return Battery::parse(nlohmann::json::parse(text)); };
    // The percentage is capped (not 112.5), health uses the raw maximum.
    EXPECT_EQ(parse(R"({"CurrentCapacity": 4500, "MaxCapacity": 4000,
        "AppleRawMaxCapacity": 5200, "DesignCapacity": 5000, "Amperage": -1234,
        "Temperature": 3055, "Voltage": 12600, "CycleCount": 7, "IsCharging": true})"),
              (BatteryInfo{100, 30.55, 12.6, -1.234, 7, 1.0, true, false}));
    EXPECT_EQ(parse(R"({"MaxCapacity": 0, "CurrentCapacity": 10, "NominalChargeCapacity": 4000,
        "DesignCapacity": 5000, "Voltage": 0, "Temperature": -5, "ExternalConnected": 1})"),
              (BatteryInfo{{}, {}, {}, {}, {}, 0.8, false, true}));
    // The top level wins, the nested dictionary fills in.
    EXPECT_EQ(parse(R"({"CurrentCapacity": 50, "Temperature": "hot",
        "BatteryData": {"CurrentCapacity": 10, "MaxCapacity": 100, "Temperature": 2500}})"),
              (BatteryInfo{50, 25, {}, {}, {}, {}, false, false}));

    EXPECT_EQ(parse("[1, 2]"), BatteryInfo{});
    EXPECT_EQ(parse(R"({"BatteryData": 3, "Voltage": 1e300})"), BatteryInfo{});
}

}  // namespace
