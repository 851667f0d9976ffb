// The command-line program run in-process against a virtual Mac.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "cli_harness.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class CliTest : public testing::Test, protected test::CliHarness {
  protected:
    CliTest() {
        openSmc = [this] {
            return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
        };
    }
    vsmc::Machine machine = test::machineFromRows(
        "key F0Ac fpe2 2 0x90 2982\n"
        "key RPlt ch8* 8 0x80 \"j31\"\n");
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
             {{"set", "0", "50:min,50:3000"}, 1, "ostrel: invalid curve point '50:min,50:3000'"},
             {{"curve", "50:min,50:3000"},
              1,
              "ostrel: invalid curve point '50:min,50:3000' (expected TEMP:RPM|min|max, e.g. "
              "50:min,70:3000,85:max)\n"},
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

// A stream whose file is full: everything written is lost.
struct FullDisk : std::streambuf {
    int overflow(int) override { return traits_type::eof(); }
};

TEST_F(CliTest, LostOutputExitsOne) {
    FullDisk full;
    std::ostream lost(&full);
    output = &lost;
    EXPECT_EQ(run({"smc", "keys"}), 1);
    EXPECT_THAT(err.str(), HasSubstr("ostrel: cannot write the output"));
}

TEST_F(CliTest, AMachinesDumpLoadsAsTheSameTable) {
    machine = test::builtinMachine("macbookpro18-2");
    vsmc::Machine reloaded(vsmc::parseProfile(printed({"smc", "dump"}), "dump"));
    EXPECT_EQ(reloaded.model(), machine.model());
    EXPECT_EQ(reloaded.keys().entries(), machine.keys().entries());
}

TEST_F(CliTest, DumpNotesKeysItCannotRead) {
    machine.injectFault({FourCC("RPlt").rawValue, SMC_CMD_READ, 1, 0, 0x85});
    std::string dump = printed({"smc", "dump"});
    EXPECT_THAT(dump, HasSubstr("model Test,1\n"));
    EXPECT_THAT(dump, HasSubstr("# RPlt could not be read (SMC rejected request for "
                                "'RPlt'); its value is left zero\nkey RPlt   ch8*"));
}

// The machine goes away in the middle of a walk: what was read stands, the walk stops at
// once instead of noting every later key, and the exit status says the output is short.
TEST_F(CliTest, AWalkThatLosesTheMachineStopsAndExitsOne) {
    for (std::vector<const char *> args : std::vector<std::vector<const char *>>{
             {"smc", "dump"}, {"smc", "keys"}, {"smc", "keys", "--json"}}) {
        machine.injectFault({FourCC("F0Ac").rawValue, SMC_CMD_READ, 1, SMC_KERN_NOT_RESPONDING, 0});
        std::string walked = printed(args, 1);
        EXPECT_EQ(err.str(), "ostrel: stopped at key 1 of 3: IOKit error 0xe00002ed\n");
        EXPECT_THAT(walked, HasSubstr("#KEY"));
        EXPECT_THAT(walked, testing::Not(HasSubstr("RPlt")));
    }
    EXPECT_EQ(Json::parse(out.str()).size(), 1u) << "the JSON that was read is still JSON";
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

}  // namespace
