// `ostrel` run in-process in a sandbox, with captured output, against virtual Macs: the SMC
// commands on a two-key machine, golden outputs of the sensing commands on a small Mac.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include "cli.h"
#include "ostrel/sampler.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class CliTest : public testing::Test, protected test::Sandbox {
  protected:
    CliTest() {
        openSmc = [this] {
            return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
        };
    }

    // Runs `ostrel ARGS` (without the program name) on emptied `out` and `err`; returns
    // the exit status.
    int run(std::vector<const char *> args) {
        out.str("");
        err.str("");
        args.insert(args.begin(), "ostrel");
        cli::Context context{output, &err, openSmc, system, helper, nullptr, pause, terminal};
        return cli::run(static_cast<int>(args.size()), args.data(), context);
    }
    // What `ostrel ARGS` prints; the run must exit with `status`.
    std::string printed(std::vector<const char *> args, int status = 0) {
        EXPECT_EQ(run(args), status) << args[0] << ": " << err.str();
        return out.str();
    }

    vsmc::Machine machine = test::machineFromRows(
        "key F0Ac fpe2 2 0x90 2982\n"
        "key RPlt ch8* 8 0x80 \"j31\"\n");
    std::ostringstream out, err;
    std::ostream *output = &out;  // where the commands print; `out` unless a test says
    std::function<std::shared_ptr<SMC>()> openSmc;
    // What the daemon commands and `watch` use; set by the tests that run them.
    std::function<HelperClient &()> helper;
    std::function<std::unique_ptr<cli::Pause>()> pause;
    bool terminal = false;
};

TEST_F(CliTest, SmcReadAndKeysPrintTypeBytesAndValue) {
    EXPECT_EQ(printed({"smc", "read", "F0Ac"}),
              "F0Ac  fpe2  2 bytes  attributes 0x90  [2e 98]  2982\n");
    EXPECT_THAT(printed({"smc", "keys"}), HasSubstr("    2  RPlt  ch8*     8  0x80  \"j31\"\n"));
    Json rows = Json::parse(printed({"smc", "keys", "--json"}));
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0]["value"], 3);
    EXPECT_EQ(rows[1], Json::parse(R"({"index":1,"key":"F0Ac","type":"fpe2","size":2,
        "attributes":144,"bytes":"2e 98","display":"2982","value":2982.0})"));
    rows[1].erase("index");
    EXPECT_EQ(Json::parse(printed({"smc", "read", "F0Ac", "--json"})), rows[1])
        << "one key's JSON is its row's";

    std::ostream lost(nullptr);  // nothing behind it: every write fails, as on a full disk
    output = &lost;
    EXPECT_EQ(run({"smc", "keys"}), 1);
    EXPECT_THAT(err.str(), HasSubstr("ostrel: cannot write the output"));
}

TEST_F(CliTest, LibraryErrorsExitOneAndUsageErrorsExitTwo) {
    struct Case {
        std::vector<const char *> args;
        int status;
        const char *says;  // on standard error, or on standard output for status 0
    };
    for (const Case &c : std::vector<Case>{
             {{"smc", "read", "NOPE"}, 1, "ostrel: SMC key 'NOPE' not found\n"},
             {{"smc", "read"}, 2, "KEY is required"},
             {{"smc", "read", "F0Mnx"}, 2, "'F0Mnx' is not an SMC key"},
             {{"smc", "read", ""}, 2, "'' is not an SMC key"},
             {{"smc", "read", "F\u00e9"}, 2, "is not an SMC key"},
             {{"smc", "read", "\x1b[2J"}, 2, "'\\x1b[2J' is not an SMC key"},
             {{"frobnicate"}, 2, "ostrel: unknown command 'frobnicate'\nRun 'ostrel --help'"},
             {{"smc", "frob", "--json"}, 2, "unknown command 'smc frob'\nRun 'ostrel smc --help'"},
             {{}, 2, "a command is required"},
             {{"smc"}, 2, "'smc' needs a command"},
             {{"sensors", "--group", "Attic"}, 2, "'Attic' is not a group"},
             {{"sensors", "--scope", "most"}, 2, "--scope: Check most value in {"},
             {{"curve"}, 2, "TEXT is required"},
             {{"curve", "50:min", "--sensor", "CPU"}, 2, "--sensor: CPU not in {cpu,gpu,max}"},
             {{"curve", "50:min", "--at", "hot"}, 2, "--at: 'hot' is not a number"},
             {{"curve", "50:min", "--min", "inf"}, 2, "--min: 'inf' is not a number"},
             {{"curve", "50:min", "--json", "--at", "60"}, 2, "--at excludes --json"},
             {{"help", "nosuch"}, 2, "unknown command 'nosuch'"},
             // Policies `set` refuses before asking the daemon.
             {{"set", "0", "fast"}, 2, "ostrel: POLICY: 'fast' is not a policy"},
             {{"set", "one", "auto"}, 2, "ostrel: FAN: 'one' is not a fan"},
             {{"set", "0", "max", "--sensor", "gpu"}, 2, "--sensor: applies to curves and presets"},
             {{"set", "0", "-5"}, 1, "ostrel: invalid fan speed\n"},
             {{"--version"}, 0, "1.1.13\n"},
             {{"help"}, 0, "Subcommands:"},
             {{"help", "smc", "read"}, 0, "1 to 4 printable ASCII characters"},
             {{"fans", "--help"}, 0, "Fan speeds, limits, mode and target"},
         }) {
        EXPECT_EQ(run(c.args), c.status) << c.says;
        EXPECT_THAT((c.status == 0 ? out : err).str(), HasSubstr(c.says));
        EXPECT_EQ(out.str().empty(), c.status != 0) << c.says;
    }
}

// A key that cannot be read is noted in a dump. The machine going away in the middle of a
// walk is different: what was read stands, the walk stops at once instead of noting every
// later key, and the exit status says the output is short. A whole dump loads as the same
// machine.
TEST_F(CliTest, AWalkNotesKeysItCannotReadStopsWhenItLosesTheMachineAndDumpsLoadBack) {
    machine.injectFault({FourCC("RPlt").rawValue, SMC_CMD_READ, 1, 0, 0x85});
    std::string dump = printed({"smc", "dump"});
    EXPECT_THAT(dump, HasSubstr("# RPlt could not be read (SMC rejected request for "
                                "'RPlt'); its value is left zero\nkey RPlt   ch8*"));
    for (std::vector<const char *> args : std::vector<std::vector<const char *>>{
             {"smc", "dump"}, {"smc", "keys"}, {"smc", "keys", "--json"}}) {
        machine.injectFault({FourCC("F0Ac").rawValue, SMC_CMD_READ, 1, SMC_KERN_NOT_RESPONDING, 0});
        std::string walked = printed(args, 1);
        EXPECT_EQ(err.str(), "ostrel: stopped at key 1 of 3: IOKit error 0xe00002ed\n");
        EXPECT_THAT(walked, testing::AllOf(HasSubstr("#KEY"), testing::Not(HasSubstr("RPlt"))));
    }
    EXPECT_EQ(Json::parse(out.str()).size(), 1u) << "the JSON that was read is still JSON";

    machine = test::builtinMachine("macbookpro18-2");
    vsmc::Machine reloaded(vsmc::parseProfile(printed({"smc", "dump"}), "dump"));
    EXPECT_EQ(reloaded.model(), machine.model());
    EXPECT_EQ(reloaded.keys().entries(), machine.keys().entries());
}

// `ostrel curve` needs no SMC: the opener fails the test if it is called.
TEST_F(CliTest, CurvePrintsTheSpeedsPresetsWithTheirSensorAndLimitsAndThePolicyJson) {
    openSmc = []() -> std::shared_ptr<SMC> {
        ADD_FAILURE() << "curve opened the SMC";
        throw SMCError::noService();
    };
    for (auto [args, text] : std::vector<std::pair<std::vector<const char *>, std::string>>{
             {{"curve", "85:max, 50:min,70:3000", "--at", "40", "--at", "60", "--at", "80", "--at",
               "72.5"},
              "50:min,70:3000,85:max (cpu)\n40 \u00B0C: 1200 rpm\n60 \u00B0C: 2100 rpm\n"
              "80 \u00B0C: 5000 rpm\n72.5 \u00B0C: 3500 rpm\n"},
             {{"curve", "quiet", "--sensor", "gpu", "--min", "2000", "--max", "5000", "--at", "95"},
              "60:min,80:3500,92:max (gpu)\n95 \u00B0C: 5000 rpm\n"},
             {{"curve", "50:min,85:max", "--sensor", "max", "--json"},
              R"({"curve":{"_0":{"points":[{"temperature":50,"rpm":0},)"
              R"({"temperature":85,"rpm":"inf"}],"sensor":"max"}}})"
              "\n"},
         }) {
        EXPECT_EQ(printed(args), text);
    }
}

// Golden outputs of the sensing commands on a small virtual Mac.
class SensingCommandsTest : public CliTest {
  protected:
    SensingCommandsTest() {
        clock.advance(std::chrono::milliseconds(123));
        openSmc = [this] {
            return std::make_shared<SMC>(std::make_unique<test::BareMemoryTransport>(machine));
        };
        machine = test::machineFromRows(
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
    }
};

TEST_F(SensingCommandsTest, SensorsGroupedWithUnitsOrAsTheSnapshotInJsonAndLostReadingsExitOne) {
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
    // Groups narrow what is sampled, so the text shows the filter for the JSON too.
    EXPECT_EQ(printed({"sensors", "--scope", "all", "--group", "cpu", "--group", "Other"}),
              "CPU\n"
              "  CPU Die (filtered)           TC0F     60.0 \u00B0C\n"
              "  CPU Proximity                TC0P     63.5 \u00B0C\n"
              "Other\n"
              "  TZ9Z                         TZ9Z     40.0 \u00B0C\n");

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

    // Readings lost to the connection: what was read is printed, and the status says so.
    for (std::vector<const char *> args : std::vector<std::vector<const char *>>{
             {"sensors", "--scope", "all"}, {"sensors", "--json"}, {"fans"}}) {
        machine.injectFault({FourCC("F1Ac").rawValue, SMC_CMD_READ, 1, SMC_KERN_NOT_RESPONDING, 0});
        EXPECT_THAT(printed(args, 1), HasSubstr("Left side")) << "what was read is printed";
        EXPECT_EQ(err.str(), "ostrel: some readings are missing: IOKit error 0xe00002ed\n");
    }
}

// What a sensors user expects flagged: a fan that should turn and does not, and limits that
// cannot be; but not the fans Apple-silicon firmware stops when the machine is cool. And
// what comes from outside cannot drive the terminal.
TEST_F(SensingCommandsTest, StalledFansAndImpossibleLimitsAreFlaggedAndNamesEscaped) {
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

    // Names from outside are printed with their controls escaped.
    clearCache(system);
    machine = test::machineFromRows(
        "key FNum ui8  1 0x80 1\n"
        "key F0ID {fds 16 0x80 <00 00 0c 00> \"\\x1b]0;x\\x07Fan\"\n"
        "key F0Ac fpe2 2 0x90 2000\n",
        "Mac\x1b[2J");
    for (const char *command : {"fans", "discovery"}) {
        EXPECT_THAT(printed({command}),
                    testing::AllOf(HasSubstr("\\x1b]0;x\\x07Fan"), testing::Not(HasSubstr("\x1b"))))
            << command;
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
