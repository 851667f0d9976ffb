// Golden outputs of the sensing commands on a small virtual Mac.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "cli_harness.h"
#include "ostrel/sampler.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class SensingCommandsTest : public testing::Test, protected test::CliHarness {
  protected:
    SensingCommandsTest() {
        clock.advance(std::chrono::milliseconds(123));
        openSmc = [this] {
            return std::make_shared<SMC>(std::make_unique<test::BareMemoryTransport>(machine));
        };
    }
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
};

TEST_F(SensingCommandsTest, SensorsGroupedWithUnits) {
    EXPECT_EQ(printed({"sensors"}),
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
              "  CPU Rail                     IC0R     1.50 A\n"
              "Fans\n"
              "   0  Left side     2982 rpm  (min 2160, max 5940, 22%)  auto\n"
              "   1  Right side    3500 rpm  (min 2000, max 5500, 43%)  manual, target 3500 rpm\n");
    EXPECT_EQ(printed({"sensors", "--scope", "all", "--group", "cpu", "--group", "Other"}),
              "CPU\n"
              "  CPU Die (filtered)           TC0F     60.0 \u00B0C\n"
              "  CPU Proximity                TC0P     63.5 \u00B0C\n"
              "Other\n"
              "  TZ9Z                         TZ9Z     40.0 \u00B0C\n");
}

TEST_F(SensingCommandsTest, SensorsJsonIsTheSnapshot) {
    EXPECT_EQ(Json::parse(printed({"sensors", "--scope", "essential", "--json"})), Json::parse(R"({
        "timestamp": "2025-12-18T00:00:00.123Z",
        "temperatures": [
            {"key": "TB0T", "name": "Battery", "group": "Battery", "value": 31, "known": true},
            {"key": "TC0P", "name": "CPU Proximity", "group": "CPU", "value": 63.5, "known": true},
            {"key": "TG0P", "name": "GPU Proximity", "group": "GPU", "value": 50.25, "known": true}],
        "fans": [
            {"id": 0, "name": "Left side", "rpm": 2982, "min": 2160, "max": 5940,
             "manual": false, "alarms": []},
            {"id": 1, "name": "Right side", "rpm": 3500, "min": 2000, "max": 5500,
             "target": 3500, "manual": true, "alarms": []}],
        "power": [{"key": "PSTR", "name": "System Total", "group": "Other", "value": 28.5,
                   "known": true}],
        "voltages": [],
        "currents": []})"));
    // A group filter narrows the JSON as it narrows the text.
    EXPECT_EQ(Json::parse(printed({"sensors", "--group", "gpu", "--json"})), Json::parse(R"({
        "timestamp": "2025-12-18T00:00:00.123Z", "temperatures": [{"key": "TG0P",
        "name": "GPU Proximity", "group": "GPU", "value": 50.25, "known": true}],
        "fans": [], "power": [], "voltages": [], "currents": []})"));
}

// What a sensors user expects flagged: a fan that should turn and does not, and limits that
// cannot be; but not the fans Apple-silicon firmware stops when the machine is cool.
TEST_F(SensingCommandsTest, StalledFansAndImpossibleLimitsAreFlagged) {
    machine = test::machineFromRows(
        "key FNum ui8  1 0x80 3\n"
        "key FS!  ui16 2 0xc0 4\n"
        "key F0Ac fpe2 2 0x90 0\nkey F0Mn fpe2 2 0xc0 2160\nkey F0Mx fpe2 2 0xc0 5940\n"
        "key F1Ac fpe2 2 0x90 3000\nkey F1Mn fpe2 2 0xc0 6000\nkey F1Mx fpe2 2 0xc0 5000\n"
        "key F2Ac fpe2 2 0x90 0\nkey F2Tg fpe2 2 0xd0 2500\n");
    std::string text = printed({"fans"});
    EXPECT_THAT(text, HasSubstr("auto  [stalled: not turning although it should]\n"));
    EXPECT_THAT(text, HasSubstr("auto  [impossible limits: minimum above maximum]\n"));
    Json fans = Json::parse(printed({"fans", "--json"}));
    // The third is manual, with a target.
    EXPECT_EQ(Json::array({fans[0]["alarms"], fans[1]["alarms"], fans[2]["alarms"]}),
              Json::parse(R"([["stalled"], ["limitsInverted"], ["stalled"]])"));

    machine = test::machineFromRows(
        "key FNum ui8  1 0x80 1\nkey Ftst ui8 1 0xd0 0\nkey F0Md ui8 1 0xd0 0\n"
        "key F0Ac flt  4 0x85 0\nkey F0Mn flt  4 0x84 1199\nkey F0Mx flt  4 0x84 7199\n");
    clearCache(system);
    EXPECT_EQ(printed({"fans"}), " 0  Fan              0 rpm  (min 1199, max 7199, 0%)  auto\n")
        << "a cool Apple-silicon machine stops its fans";
}

TEST_F(SensingCommandsTest, NamesFromOutsideArePrintedWithControlsEscaped) {
    machine = test::machineFromRows(
        "key FNum ui8  1 0x80 1\n"
        "key F0ID {fds 16 0x80 <00 00 0c 00> \"\\x1b]0;x\\x07Fan\"\n"
        "key F0Ac fpe2 2 0x90 2000\n",
        "Mac\x1b[2J");
    for (const char *command : {"fans", "discovery"}) {
        std::string text = printed({command});
        EXPECT_THAT(text, HasSubstr("\\x1b]0;x\\x07Fan"));
        EXPECT_EQ(text.find('\x1b'), std::string::npos) << command;
    }
}

TEST_F(SensingCommandsTest, BatteryFromPowerSupplyFilesOrNone) {
    EXPECT_EQ(printed({"battery"}), "No battery.\n");
    EXPECT_EQ(printed({"battery", "--json"}), "null\n");
    root.put("sys/class/power_supply/BAT0/type", "Battery\n");
    root.put("sys/class/power_supply/BAT0/status", "Charging\n");
    root.put("sys/class/power_supply/BAT0/capacity", "81\n");
    root.put("sys/class/power_supply/BAT0/voltage_now", "12600000\n");
    root.put("sys/class/power_supply/BAT0/current_now", "1500000\n");
    EXPECT_EQ(printed({"battery"}),
              "Charge          81%\n"
              "Temperature     31.0 \u00B0C\n"
              "Voltage         12.60 V\n"
              "Current         1.50 A\n"
              "Power           18.90 W\n"
              "Charging        yes\n"
              "External power  yes\n");
    EXPECT_EQ(Json::parse(printed({"battery", "--json"})),
              Json::parse(R"({"percent": 81, "temperature": 31, "voltage": 12.6,
                              "amperage": 1.5, "charging": true, "externalPower": true})"))
        << "unknown values and the derived power are left out";
}

TEST_F(SensingCommandsTest, DiscoverySummaryAndRefresh) {
    std::string cache = root.path() + "/.cache/dev.ostrel/discovery-v2.txt";
    EXPECT_EQ(printed({"discovery"}),
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
    EXPECT_EQ(Json::parse(printed({"discovery", "--json"}))["fans"][1],
              Json::parse(R"({"id": 1, "name": "Right side", "hasModeKey": false})"))
        << "fans are \"id\" in every shape";
    EXPECT_EQ(machine.count(SMC_CMD_KEY_AT_INDEX), 0u) << "the cache was used";
    printed({"discovery", "--refresh", "--json"});
    EXPECT_GT(machine.count(SMC_CMD_KEY_AT_INDEX), 0u) << "--refresh scans again";
}

TEST_F(SensingCommandsTest, ReadingsLostToTheConnectionExitOne) {
    printed({"sensors"});  // discovered and cached
    for (std::vector<const char *> args : std::vector<std::vector<const char *>>{
             {"sensors", "--scope", "all"}, {"sensors", "--json"}, {"fans"}}) {
        machine.injectFault({FourCC("F1Ac").rawValue, SMC_CMD_READ, 1, SMC_KERN_NOT_RESPONDING, 0});
        EXPECT_THAT(printed(args, 1), HasSubstr("Left side")) << "what was read is printed";
        EXPECT_EQ(err.str(), "ostrel: some readings are missing: IOKit error 0xe00002ed\n");
    }
}

// Waits as a script says: each wait returns the next signal (0: the interval passed).
struct ScriptedPause : cli::Pause {
    ScriptedPause(std::vector<int> &s, std::vector<long> &w) : script(s), waitsMs(w) {}
    int wait(std::chrono::nanoseconds duration) override {
        waitsMs.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count());
        return waitsMs.size() <= script.size() ? script[waitsMs.size() - 1] : 0;
    }
    std::vector<int> &script;
    std::vector<long> &waitsMs;
};

// No daemon listens in the sandbox: watch goes on without policies. Frames and the log
// under them are the end-to-end tests' (tests/e2e/cli_e2e_test.cpp).
TEST_F(SensingCommandsTest, WatchWaitsItsIntervalUntilItsCountOrASignal) {
    platform::SerialQueue deadlines("watch.deadlines", nullptr);
    HelperClient client(root.path() + "/run/dev.ostrel.helper.sock", deadlines);
    helper = [&]() -> HelperClient & { return client; };
    std::vector<int> script;
    std::vector<long> waitsMs;
    pause = [&] { return std::make_unique<ScriptedPause>(script, waitsMs); };
    root.put("var/log/dev.ostrel.helper.log", std::string(5000, 'x') + "\nlast\n");
    struct Case {
        std::vector<const char *> args;
        bool terminal;
        std::vector<int> signals;
        int status;
        std::vector<long> waitsMs;
    };
    for (const Case &c : std::vector<Case>{
             {{"watch", "--count", "3", "--interval", "0.5"}, false, {}, 0, {500, 500}},
             {{"watch"}, false, {0, SIGINT}, 130, {2000, 2000}},
             {{"watch", "--interval", "1"}, true, {SIGTERM}, 143, {1000}},
         }) {
        terminal = c.terminal;
        script = c.signals;
        waitsMs.clear();
        std::string frames = printed(c.args, c.status);
        EXPECT_EQ(waitsMs, c.waitsMs);
        EXPECT_EQ(frames.starts_with("\x1b[H\x1b[2J"), c.terminal);
        EXPECT_THAT(frames, HasSubstr("manual, target 3500 rpm  policy: unknown\n"
                                      "Daemon not reachable: no daemon is listening on "));
        EXPECT_THAT(frames, HasSubstr("Daemon log\n  last\n")) << "a line cut by the tail";
    }
}

}  // namespace
