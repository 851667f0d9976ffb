// Golden outputs of the sensing commands on a small virtual Mac.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "cli_harness.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class SensingCommandsTest : public testing::Test,
                            protected test::Sandbox,
                            protected test::CliHarness {
  protected:
    SensingCommandsTest() { clock.advance(std::chrono::milliseconds(123)); }
    vsmc::Machine machine = test::machineFromRows(
        "key TC0P sp78 2 0xc0 63.5\n"
        "key TC0F sp78 2 0xc0 60\n"
        "key TG0P sp78 2 0xc0 50.25\n"
        "key TB0T sp78 2 0xc0 31\n"
        "key TZ9Z sp78 2 0xc0 40\n"
        "key PSTR sp87 2 0xc0 28.5\n"
        "key VD0R sp5a 2 0xc0 17.93\n"
        "key IC0R sp4b 2 0xc0 1.5\n"
        "key FNum ui8  1 0x80 2\n"
        "key FS!  ui16 2 0xc0 2\n"
        "key F0ID {fds 16 0x80 <00 00 0c 00> \"Left side\"\n"
        "key F0Ac fpe2 2 0x90 2982\n"
        "key F0Mn fpe2 2 0xc0 2160\n"
        "key F0Mx fpe2 2 0xc0 5940\n"
        "key F1ID {fds 16 0x80 <00 00 0d 00> \"Right side\"\n"
        "key F1Ac fpe2 2 0x90 3500\n"
        "key F1Mn fpe2 2 0xc0 2000\n"
        "key F1Mx fpe2 2 0xc0 5500\n"
        "key F1Tg fpe2 2 0xd0 3500\n",
        "MacBookPro10,1");

    int run(std::vector<const char *> args) {
        return CliHarness::run(
            std::move(args),
            [this] {
                return std::make_shared<SMC>(std::make_unique<test::BareMemoryTransport>(machine));
            },
            system);
    }
};

TEST_F(SensingCommandsTest, SensorsGroupedWithUnits) {
    ASSERT_EQ(run({"sensors"}), 0) << err.str();
    EXPECT_EQ(out.str(),
              "CPU\n"
              "  CPU Die (filtered)           TC0F     60.0 \u00B0C\n"
              "  CPU Proximity                TC0P     63.5 \u00B0C\n"
              "GPU\n"
              "  GPU Proximity                TG0P     50.2 \u00B0C\n"
              "Battery\n"
              "  Battery                      TB0T     31.0 \u00B0C\n"
              "Power\n"
              "  System Total                 PSTR    28.50 W\n"
              "Voltage\n"
              "  DC In                        VD0R    17.93 V\n"
              "Current\n"
              "  CPU Rail                     IC0R     1.50 A\n");
    out.str("");
    ASSERT_EQ(run({"sensors", "--scope", "all", "--group", "cpu", "--group", "Other"}), 0);
    EXPECT_EQ(out.str(),
              "CPU\n"
              "  CPU Die (filtered)           TC0F     60.0 \u00B0C\n"
              "  CPU Proximity                TC0P     63.5 \u00B0C\n"
              "Other\n"
              "  TZ9Z                         TZ9Z     40.0 \u00B0C\n");
}

TEST_F(SensingCommandsTest, SensorsJsonIsTheSnapshot) {
    ASSERT_EQ(run({"sensors", "--scope", "essential", "--json"}), 0) << err.str();
    EXPECT_EQ(Json::parse(out.str()), Json::parse(R"({
        "timestamp": "2025-12-18T00:00:00.123Z",
        "temperatures": [
            {"key": "TB0T", "name": "Battery", "group": "Battery", "value": 31, "known": true},
            {"key": "TC0P", "name": "CPU Proximity", "group": "CPU", "value": 63.5, "known": true},
            {"key": "TG0P", "name": "GPU Proximity", "group": "GPU", "value": 50.25, "known": true}],
        "fans": [],
        "power": [{"key": "PSTR", "name": "System Total", "group": "Other", "value": 28.5,
                   "known": true}],
        "voltages": [],
        "currents": []})"));
}

TEST_F(SensingCommandsTest, FansWithLimitsModeAndTarget) {
    ASSERT_EQ(run({"fans"}), 0) << err.str();
    EXPECT_EQ(out.str(),
              " 0  Left side     2982 rpm  (min 2160, max 5940, 22%)  auto\n"
              " 1  Right side    3500 rpm  (min 2000, max 5500, 43%)  manual, target 3500 rpm\n");
    out.str("");
    ASSERT_EQ(run({"fans", "--json"}), 0);
    EXPECT_EQ(Json::parse(out.str())[1], Json::parse(R"({"id": 1, "name": "Right side",
        "rpm": 3500, "min": 2000, "max": 5500, "target": 3500, "manual": true})"));
}

TEST_F(SensingCommandsTest, BatteryFromPowerSupplyFilesOrNone) {
    ASSERT_EQ(run({"battery"}), 0);
    EXPECT_EQ(out.str(), "No battery.\n");
    out.str("");
    ASSERT_EQ(run({"battery", "--json"}), 0);
    EXPECT_EQ(out.str(), "null\n");
    root.put("sys/class/power_supply/BAT0/type", "Battery\n");
    root.put("sys/class/power_supply/BAT0/status", "Charging\n");
    root.put("sys/class/power_supply/BAT0/capacity", "81\n");
    root.put("sys/class/power_supply/BAT0/voltage_now", "12600000\n");
    root.put("sys/class/power_supply/BAT0/current_now", "1500000\n");
    out.str("");
    ASSERT_EQ(run({"battery"}), 0);
    EXPECT_EQ(out.str(),
              "Charge          81%\n"
              "Temperature     31.0 \u00B0C\n"
              "Voltage         12.60 V\n"
              "Current         1.50 A\n"
              "Power           18.90 W\n"
              "Charging        yes\n"
              "External power  yes\n");
}

TEST_F(SensingCommandsTest, DiscoverySummaryAndRefresh) {
    ASSERT_EQ(run({"discovery"}), 0) << err.str();
    std::string cache = root.path() + "/.cache/dev.ostrel/discovery-v2.txt";
    EXPECT_EQ(out.str(),
              "Model                 unknown\n"
              "SMC keys              20\n"
              "Sensors               8 (7 known, 4 essential)\n"
              "Fans                  2\n"
              "   0  Left side\n"
              "   1  Right side\n"
              "Fan control           force mask (FS! )\n"
              "Temperature services  none\n"
              "Cache file            " +
                  cache + "\n");
    machine.clearJournal();
    out.str("");
    ASSERT_EQ(run({"discovery", "--json"}), 0);
    EXPECT_EQ(machine.count(SMC_CMD_KEY_AT_INDEX), 0u) << "the cache was used";
    EXPECT_EQ(Json::parse(out.str())["fans"][1]["name"], "Right side");
    ASSERT_EQ(run({"discovery", "--refresh", "--json"}), 0);
    EXPECT_GT(machine.count(SMC_CMD_KEY_AT_INDEX), 0u) << "--refresh scans again";
}

TEST_F(SensingCommandsTest, UsageAndServiceErrors) {
    EXPECT_EQ(run({"sensors", "--group", "Attic"}), 2);
    EXPECT_THAT(err.str(), HasSubstr("'Attic' is not a group"));
    EXPECT_EQ(run({"sensors", "--scope", "most"}), 2);
    machine.injectFault({FourCC("#KEY").rawValue, SMC_CMD_READ, 1, SMC_KERN_IO_ERROR, 0});
    err.str("");
    EXPECT_EQ(run({"fans"}), 1);
    EXPECT_EQ(err.str(), "ostrel: IOKit error 0xe00002ca\n");
}

}  // namespace
