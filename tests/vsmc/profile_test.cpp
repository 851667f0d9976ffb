// The virtual Mac's text formats, machine profiles and load scenarios (with a machine playing
// one), and their errors; the built-in machines are the physics tests' EveryProfile.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csmc/smc.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/profile.h"
#include "ostrel/vsmc/scenario.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel::vsmc;
using testing::HasSubstr;
using testing::Pair;

// The message a text fails to parse with, or "(parsed)".
template <class Error, class Parsed>
std::string failure(Parsed (*parse)(std::string_view, const std::string &), const std::string &text,
                    const std::string &source) {
    try {
        parse(text, source);
    } catch (const Error &e) {
        return e.what();
    }
    return "(parsed)";
}
std::string errorOf(const std::string &text) {
    return failure<ProfileError>(parseProfile, text, "fans.profile");
}
std::string scenarioErrorOf(const std::string &text) {
    return failure<ScenarioError>(parseScenario, text, "load.scenario");
}

// What loading `name` throws: whether it is missing, and the message.
std::pair<bool, std::string> loadError(const std::string &name,
                                       const ostrel::platform::Files &files) {
    try {
        loadProfile(name, files);
    } catch (const ProfileError &e) {
        return {e.missing(), e.what()};
    }
    return {false, "(loaded)"};
}

TEST(ProfileText, ParsesEveryKindOfLineAndKeysFollowTheirNamesUnlessALineSaysOtherwise) {
    Profile p = parseProfile(
        "# comment\n"
        "\n"
        "model  MacBookPro10,1 \n"
        "key FS! ui16 2 0xc0 3\n"
        "key \"F0ID\" {fds 16 0x80 <00 00 0c 00> \"Left side\"\n"
        "key TC0P sp78 2 192 -0.5\n"
        "key RPlt ch8* 8 0x80 \"a\\\"b\\x01\"\n"
        "key Zero flag 1 0x80\n"
        "physics cpu-max-power 28.5\n"
        "firmware unlock-refusals 4\n"
        "bind TC0P cpu +3.5 x1.1\n"
        "bind Zero board -2\n"
        "bind FS! none\n"
        "sensor \"PMU tdie1\" board +6\n"
        "sensor gauge battery\n"
        "battery cells 4\n",
        "x.profile");
    EXPECT_EQ(p.model, "MacBookPro10,1");
    EXPECT_EQ(p.keys, (std::vector<KeyEntry>{
                          {smc_fourcc("FS! "), smc_fourcc("ui16"), 2, 0xc0, {0, 3}},
                          {smc_fourcc("F0ID"),
                           smc_fourcc("{fds"),
                           16,
                           0x80,
                           {0, 0, 0x0c, 0, 'L', 'e', 'f', 't', ' ', 's', 'i', 'd', 'e'}},
                          {smc_fourcc("TC0P"), smc_fourcc("sp78"), 2, 192, {0xFF, 0x80}},
                          {smc_fourcc("RPlt"), smc_fourcc("ch8*"), 8, 0x80, {'a', '"', 'b', 1}},
                          {smc_fourcc("Zero"), smc_fourcc("flag"), 1, 0x80, {}}}));
    MachineParams params;
    params.cpuMaxPower = 28.5;
    params.unlockRefusals = 4;
    EXPECT_EQ(p.params, params);
    EXPECT_EQ(p.bindings, (std::vector<Binding>{{smc_fourcc("TC0P"), Source::cpu, 3.5, 1.1},
                                                {smc_fourcc("Zero"), Source::board, -2, 1},
                                                {smc_fourcc("FS! "), Source::none, 0, 1}}));
    EXPECT_EQ(p.sensors, (std::vector<SensorService>{{"PMU tdie1", Source::board, 6},
                                                     {"gauge", Source::battery, 0}}));
    EXPECT_EQ(std::tuple(p.battery.present, p.battery.cells, p.battery.remaining),
              std::tuple(true, 4, std::nullopt));

    auto bound = [](const char *key, const char *type) {
        return defaultBinding(smc_fourcc(key), smc_fourcc(type));
    };
    EXPECT_EQ((std::vector{bound("TC0P", "sp78")->source, bound("TC3C", "sp78")->source,
                           bound("Tp09", "flt ")->source, bound("TB0T", "sp78")->source,
                           bound("PSTR", "flt ")->source, bound("B0AV", "ui16")->source}),
              (std::vector{Source::proximity, Source::cpu, Source::cpu, Source::battery,
                           Source::systemPower, Source::batteryMillivolts}));
    // TCFP: a T key that is not a measurement.
    EXPECT_FALSE(bound("TCFP", "ui8 ") || bound("VBAT", "flag") || bound("RPlt", "ch8*"));
    EXPECT_NE(bound("TC1C", "sp78")->offset, bound("TC2C", "sp78")->offset)
        << "cores do not read alike";

    Machine machine(
        parseProfile("model M,1\nbind PSTR none\nbind TC0E cpu +10\n"
                     "key TC0E sp78 2 0xc0 60\nkey TC0P sp78 2 0xc0 55\nkey PSTR sp87 2 0xc0 9\n",
                     "m"));
    machine.setLoad(1, 1);
    machine.advance(60);
    EXPECT_EQ(machine.number(smc_fourcc("PSTR")), 9) << "bound to nothing: keeps its value";
    EXPECT_NEAR(machine.simulation().hottestCpu(),
                machine.simulation().state().node(Node::cpu) + 10, 1e-9);
}

TEST(ProfileText, ErrorsNameTheFileAndLineAndAMissingProfileListsTheBuiltIns) {
    const std::string model = "model M,1\n";
    EXPECT_EQ(errorOf(model + "key TC0P sp78 2 0xc0 300\n"),
              "fans.profile:2: value 300 cannot be encoded as type 'sp78' in 2 bytes");
    EXPECT_EQ(errorOf(model + "\nkey TC0P sp78 2\n"),
              "fans.profile:3: a key row needs: key KEY TYPE SIZE ATTRIBUTES [VALUE]");
    // Values a machine could not hold would read back as something else, or not at all as
    // a number, and poison the physics.
    EXPECT_EQ(errorOf(model + "key F0Mx flt 4 0xc0 1e39\n"),
              "fans.profile:2: value 1e39 is out of range for type 'flt' in 4 bytes (it would "
              "read inf)");
    EXPECT_EQ(errorOf(model + "physics ambient 99\n"),
              "fans.profile:2: physics ambient '99' must be a number from -30 to 60");
    EXPECT_EQ(errorOf(model + "bind TC0X cpu\nkey TC0P sp78 2 0xc0 50\n"),
              "fans.profile:2: bind TC0X: the table has no such key");
    EXPECT_EQ(errorOf("key A ui8 1 0x80 1\n"), "fans.profile: no 'model' line");
    EXPECT_THAT(errorOf("model\n"), HasSubstr(":1: 'model' needs"));
    // Rows after the model line, and what their error says. Truncated escapes, stray
    // brackets, NUL bytes and very long tokens are errors on their line too, not crashes
    // (fuzz/profile_parser_fuzz.cpp explores the rest).
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"key TC0PX sp78 2 0xc0 1", ":2: key 'TC0PX'"},
        {"key TC0P sp78 33 0xc0", ":2: size '33'"},
        {"key TC0P sp78 2 0x100 1", ":2: attributes"},
        {"key TC0P sp78 2 0xc0 warm", ":2: value 'warm' is not a number"},
        {"key F0Mx ui16 2 0xc0 70000",
         ":2: value 70000 is out of range for type 'ui16' in 2 "
         "bytes (it would read 4464)"},
        {"key F0Mx flt 4 0xc0 nan", ":2: value nan cannot"},
        {"key F0Mx flt 4 0xc0 <00 00 80 7f>", ":2: the bytes of a 'flt' value must hold a finite"},
        {"key TC0P sp78 2 0xc0 1 2", ":2: '1': a number must be the whole value"},
        {"key RPlt ch8* 2 0x80 \"abc\"", ":2: value has 3 bytes but the key's size is 2"},
        {"key RPlt ch8* 8 0x80 \"abc", ":2: quoted text is not closed"},
        {"key RPlt ch8* 8 0x80 <0a 1>", ":2: byte list has an odd number"},
        {"key RPlt ch8* 8 0x80 <0g>", ":2: 'g' is not"},
        {"key A ui8 1 0x80 1\nkey A ui8 1 0x80 2", ":3: key A appears twice (first on line 2)"},
        {"fan 0", ":2: unknown directive 'fan'"},
        {"physics warp 9", ":2: unknown physics parameter 'warp' (known: ambient,"},
        {"firmware fan-stop", ":2: 'firmware' needs a name and a value"},
        {"battery cells 0", ":2: battery cells '0'"},
        {"bind TC0P lava", ":2: 'lava' is not a quantity"},
        {"bind TC0P cpu 3", ":2: '3' is neither an offset"},
        {"sensor \"x\" cpu-power", ":2: 'cpu-power' is not a temperature quantity"},
        {"sensor <01> cpu", ":2: a sensor service reads: sensor \"NAME\" NODE"},
        {"key A ui8 1 0x80 \"\\", ":2: "},
        {"key A ui8 1 0x80 \"\\x4\"", ":2: "},
        {std::string("key \0\0 ui8 1 1 1\0", 17), ":2: "},
        {"key " + std::string(5000, 'x'), ":2: "},
        {"key A ui8 1 -1 1", ":2: "},
        {"key A ui8 1 0x80 <", ":2: "}};
    for (const auto &[rows, message] : cases) {
        EXPECT_THAT(errorOf(model + rows + "\n"), HasSubstr(message))
            << testing::PrintToString(rows.substr(0, 40));
    }

    // Loading a profile that does not exist says so and lists the built-in ones.
    ostrel::platform::FakeFiles files;
    EXPECT_THAT(loadError("nosuch", files), Pair(true, HasSubstr("macbookpro10-1")));
    files.put("/p/mine.profile", "model Mine,1\nkey TC0P sp78 2 0xc0 50\n");
    EXPECT_EQ(loadProfile("/p/mine.profile", files).model, "Mine,1");
    files.put("/p/bad.profile", "model Mine,1\nkey TC0P\n");
    EXPECT_THAT(loadError("/p/bad.profile", files), Pair(false, HasSubstr("/p/bad.profile:2:")));
}

TEST(Scenario, RampsHoldLoopKeepUnnamedSettingsErrorsNameTheLineAndPlayingStopsByHand) {
    Scenario s = parseScenario(
        "# warm up\n"
        "at 0 cpu 0.25   # light\n"
        "\n"
        "at 10 cpu 1 gpu 0.5 over 10\n"
        "at 15 ambient 30 power battery\n",
        "x");
    ASSERT_EQ(s.points.size(), 3u);
    ScenarioValues start{0.5, 0.25, 20, true};
    EXPECT_EQ(scenarioAt(s, 5, start), (ScenarioValues{0.25, 0.25, 20, true}));
    EXPECT_EQ(scenarioAt(s, 15, start), (ScenarioValues{0.625, 0.375, 30, false}));
    EXPECT_EQ(scenarioAt(s, 1000, start), (ScenarioValues{1, 0.5, 30, false}));
    EXPECT_EQ(std::pair(scenarioFinished(s, 19), scenarioFinished(s, 20)), std::pair(false, true));

    // A ramp retargeted halfway starts from where it got; a loop starts again from the top.
    Scenario ramps = parseScenario("at 0 cpu 1 over 10\nat 5 cpu 0 over 5\n", "x");
    EXPECT_DOUBLE_EQ(scenarioAt(ramps, 5, {}).cpu, 0.5);
    EXPECT_DOUBLE_EQ(scenarioAt(ramps, 7.5, {}).cpu, 0.25);
    Scenario loop = parseScenario("at 0 cpu 0.1\nat 10 cpu 0.9\nloop 20\n", "x");
    EXPECT_EQ(scenarioAt(loop, 25, {}).cpu, 0.1);
    EXPECT_EQ(scenarioAt(loop, 35, {}).cpu, 0.9);
    EXPECT_FALSE(scenarioFinished(loop, 1e6));

    // Errors name the file and line.
    EXPECT_EQ(scenarioErrorOf("at 0 cpu 1.5\n"),
              "load.scenario:1: cpu load '1.5' must be a number from 0 to 1");
    EXPECT_THAT(scenarioErrorOf("at 10 cpu 1\nat 5 cpu 0\n"), HasSubstr(":2: time 5 comes before"));
    EXPECT_THAT(scenarioErrorOf("at 0 fan 1\n"), HasSubstr(":1: unknown setting 'fan'"));
    EXPECT_THAT(scenarioErrorOf("at 0 cpu\n"), HasSubstr(":1: a point reads"));
    EXPECT_THAT(scenarioErrorOf("at 0 power mains\n"), HasSubstr("must be ac or battery"));
    EXPECT_THAT(scenarioErrorOf("at 0 cpu 1\nloop 300\nat 400 cpu 0\n"),
                HasSubstr(":3: nothing may"));
    EXPECT_THAT(scenarioErrorOf("at 50 cpu 1\nloop 10\n"), HasSubstr("after the last point"));
    EXPECT_THAT(scenarioErrorOf("run 0\n"), HasSubstr("unknown directive 'run'"));
    EXPECT_THAT(scenarioErrorOf("at nan cpu 1\n"), HasSubstr("time 'nan'"));
    EXPECT_EQ(scenarioErrorOf("# nothing\n"), "load.scenario: no 'at' line");

    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    machine.play(parseScenario("at 0 cpu 0.5\nat 10 cpu 1 gpu 1\n", "two-step"));
    machine.advance(5);
    EXPECT_EQ(machine.simulation().state().cpuLoad, 0.5);
    machine.advance(10);
    EXPECT_EQ(machine.simulation().state().gpuLoad, 1);
    EXPECT_EQ(statusJson(machine)["scenario"]["source"], "two-step");
    machine.setLoad(0.1, 0);
    EXPECT_FALSE(machine.simulation().scenario().has_value());
    machine.advance(5);
    EXPECT_EQ(machine.simulation().state().cpuLoad, 0.1);
}

}  // namespace
