// `ostrel` against the real daemon: the built program, signed as the build signs it, run as
// a process in the rig's sandbox, since the daemon serves only Ostrel's own programs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/daemon_rig.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class CliE2E : public testing::Test {
  protected:
    // Runs `ostrel ARGS` in the sandbox; checks its status and returns its output.
    std::string ostrel(const std::vector<std::string> &args, int status = 0) {
        platform::ProcessResult run = rig.ostrel(args);
        EXPECT_EQ(run.exitCode, status) << testing::PrintToString(args) << run.error;
        error = run.error;
        return run.output;
    }

    test::DaemonRig rig;
    std::string error;
};

TEST_F(CliE2E, SetsPoliciesTheDaemonAcceptsAndReportsTheOnesItRefuses) {
    rig.start();
    EXPECT_EQ(ostrel({"set", "0", "50:min,70:3000,85:max"}),
              "fan 0: curve 50:min,70:3000,85:max (cpu)\n");
    EXPECT_EQ(ostrel({"set", "1", "quiet", "--sensor", "gpu"}),
              "fan 1: curve 60:min,80:3500,92:max (gpu)\n");
    EXPECT_EQ(ostrel({"set", "1", "2500"}), "fan 1: fixed 2500 rpm\n");
    // The daemon's refusal in its words (what is refused before asking it: cli_test).
    EXPECT_EQ(ostrel({"set", "7", "max"}, 1), "");
    EXPECT_THAT(error, testing::StartsWith("ostrel: no fan with id 7\n"));
    EXPECT_EQ(ostrel({"policies"}),
              " 0  Fan 1        curve 50:min,70:3000,85:max (cpu)\n"
              " 1  Fan 2        fixed 2500 rpm\n");

    Json listed = Json::parse(ostrel({"policies", "--json"}));
    EXPECT_EQ(listed[1], Json::parse(R"({"id":1,"name":"Fan 2","policy":{"fixed":{"rpm":2500}},
                                         "description":"fixed 2500 rpm"})"));
    EXPECT_EQ(ostrel({"set", "all", "auto"}), "all fans: auto\n");
    EXPECT_EQ(ostrel({"policies"}), " 0  Fan 1        auto\n 1  Fan 2        auto\n");
}

TEST_F(CliE2E, HelperStatusAndWatchSayWhetherTheDaemonAnswers) {
    std::string status = ostrel({"helper", "status"}, 1);
    EXPECT_THAT(status, HasSubstr("Installed  no\n"));
    EXPECT_THAT(status, HasSubstr("Daemon     not reachable: no daemon is listening on "));
    EXPECT_THAT(status, HasSubstr("Log        " + rig.logPath() + "\n"));
    ostrel({"set", "0", "2500"}, 1);
    EXPECT_THAT(error, testing::EndsWith("\nInstall it with: ostrel helper install\n"));

    rig.start();
    ostrel({"set", "1", "2500"});
    EXPECT_THAT(ostrel({"helper", "status"}), HasSubstr("Daemon     version 1/1.1.13 on "));
    EXPECT_EQ(Json::parse(ostrel({"helper", "version", "--json"})),
              Json::parse(R"({"version":"1/1.1.13"})"));
    // Frames one after another with a blank line between them, the daemon's log under each.
    std::string frames = ostrel({"watch", "--count", "2", "--interval", "0.1"});
    EXPECT_THAT(frames,
                testing::ContainsRegex(
                    "policy: fixed 2500 rpm\nDaemon log\n(.*\n)*\nEvery 0.1s: ostrel watch"));
    EXPECT_THAT(frames, HasSubstr("ostrel-helper: fan 1: fixed 2500 rpm\n"));
    Json frame = Json::parse(ostrel({"watch", "--count", "1", "--json"}));
    EXPECT_EQ(frame["fans"][1]["policy"], "fixed 2500 rpm");
    EXPECT_EQ(frame["daemon"], Json::parse(R"({"reachable":true})"));
}

}  // namespace
