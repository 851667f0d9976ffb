// Self-update: which sources are acceptable, the version query and ordering, and every
// outcome of an attempt on fake files and processes (the end-to-end tests run one on real
// files).

#include "ostrel/helper_self_update.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "support/self_update_rig.h"

namespace {

using namespace ostrel;
using namespace HelperSelfUpdate;

using test::printed;
using test::teamKey;
using Rig = test::SelfUpdateRig;
const std::string kSource = Rig::source;
const std::string kDest = Rig::destination;
const std::string kStaging = Rig::staging;

class SelfUpdateTest : public testing::Test, protected Rig {};

TEST_F(SelfUpdateTest, SourcesMustBeRegularFilesWhoseRealPathIsInAnInstallLocation) {
    files.put("/home/alice/.local/lib/ostrel/ostrel-helper", "x");
    files.put("/home/alice/Desktop/ostrel-helper", "x");
    files.put("/home//.local/lib/ostrel/ostrel-helper", "x");
    files.put("/opt/ostrel-evil/ostrel-helper", "x");
    files.link("/opt/ostrel/link", kSource);  // the link itself is examined
    files.link("/opt/ostrel/real", "/tmp/elsewhere");
    files.put("/tmp/elsewhere", "x");
    const std::pair<std::string, bool> cases[] = {
        {kSource, true},
        {"/home/alice/.local/lib/ostrel/ostrel-helper", true},
        {"/home/alice/Desktop/ostrel-helper", false},
        {"/home//.local/lib/ostrel/ostrel-helper", false},
        {"/opt/ostrel-evil/ostrel-helper", false},
        {"/opt/ostrel/link", false},
        {"/opt/ostrel/missing", false},
    };
    for (const auto &[path, ok] : cases) {
        EXPECT_EQ(acceptableSource(path, paths, files).has_value(), ok) << path;
    }

    env.set("OSTREL_ROOT", "/sandbox/");
    files.put("/sandbox", "");  // the fake resolves only paths it holds
    files.put("/sandbox/opt/ostrel/h", "x");
    EXPECT_EQ(acceptableSource("/sandbox/opt/ostrel/h", paths, files), "/sandbox/opt/ostrel/h");
    EXPECT_FALSE(acceptableSource(kSource, paths, files));
}

TEST_F(SelfUpdateTest, VersionsCompareRunsOfDigitsByValue) {
    const std::tuple<const char *, const char *, int> cases[] = {
        {"1.1.9", "1.1.13", -1}, {"1.1.14", "1.1.13", 1},
        {"1.1.13", "1.1.13", 0}, {"1.2.0", "1.1.99", 1},
        {"1.01", "1.1", 0},      {"1.1", "1.1.0", -1},
        {"2", "10", -1},         {"1.123456789012345678901", "1.99", 1},
    };
    for (const auto &[a, b, order] : cases) {
        EXPECT_EQ(compareVersions(a, b), order) << a << " vs " << b;
        EXPECT_EQ(compareVersions(b, a), -order) << b << " vs " << a;
    }
}

TEST_F(SelfUpdateTest, VersionIsTheTrimmedOutputOfASuccessfulRun) {
    EXPECT_EQ(version("/x", processes), "1.1.14");
    EXPECT_EQ(processes.runs,
              (std::vector<platform::ProcessLaunch>{{.program = "/x",
                                                     .args = {"--print-version"},
                                                     .timeout = std::chrono::milliseconds(5000),
                                                     .captureLimit = 4096}}));
    const std::pair<platform::ProcessResult, std::optional<std::string>> cases[] = {
        {printed(" \r\n1.2.0 \n"), "1.2.0"},
        {printed("1.2\xff"), "1.2\xEF\xBF\xBD"},
        {printed(""), std::nullopt},
        {printed(" \n"), std::nullopt},
        {printed("1.2.0\n", 1), std::nullopt},
        {platform::ProcessResult{0, true, std::nullopt, 9, "1.2.0", ""}, std::nullopt},
        {platform::ProcessResult{ENOEXEC, false, std::nullopt, std::nullopt, "", ""}, std::nullopt},
    };
    for (const auto &[result, expected] : cases) {
        answer = result;
        EXPECT_EQ(version("/x", processes), expected) << result.output;
    }
}

TEST_F(SelfUpdateTest, ANewerSignedCopyIsStagedCheckedAndRenamedIntoPlace) {
    std::string installed = files.find(kDest)->bytes;
    files.put(kDest, files.find(kSource)->bytes);
    EXPECT_EQ(attempt(), Outcome(Unchanged{}));
    EXPECT_TRUE(processes.runs.empty() && !files.find(kStaging)) << "nothing staged";
    files.put(kDest, installed);
    files.put(kStaging, "leftover of an interrupted attempt");
    services.ownerUid = 7;  // a sandbox's user
    EXPECT_EQ(attempt(), Outcome(Updated{"1.1.14"}));
    // Only the staged copy ran, root-owned and executable when it did.
    ASSERT_EQ(processes.runs.size(), 1u);
    EXPECT_EQ(processes.runs[0].program, kStaging);
    EXPECT_EQ(files.find(kDest)->bytes, files.find(kSource)->bytes);
    EXPECT_EQ(files.find(kDest)->status.mode & 07777, 0755u);
    EXPECT_EQ(files.find(kDest)->status.uid, 7u);
    EXPECT_EQ(files.find(kStaging), nullptr);
}

TEST_F(SelfUpdateTest, EveryRejectionSaysWhyAndLeavesTheDestinationAndNoStagingFile) {
    const std::string notUsable =
        " is not usable right now (missing, a link, or not in an install location)";
    const std::string unsigned_ = kSource + " is not signed by team " + teamKey().team();
    static const SigningKey other = SigningKey::generate();
    struct Case {
        const char *name;
        std::function<void(Rig &)> arrange;
        std::string reason;
        bool ran = false;  // whether the candidate was executed
    };
    const Case cases[] = {
        {"link", [](Rig &r) { r.files.link("/opt/ostrel/h", kSource); },
         "/opt/ostrel/h" + notUsable},
        {"copy", [](Rig &r) { r.files.fail("copyNew", kStaging, ENOSPC); },
         "could not stage " + kSource},
        {"chown", [](Rig &r) { r.files.fail("changeOwner", kStaging, EPERM); },
         "could not stage " + kSource},
        {"chmod", [](Rig &r) { r.files.fail("changeMode", kStaging, EPERM); },
         "could not stage " + kSource},
        {"other team", [](Rig &r) { r.put(kSource, &other); }, unsigned_},
        {"ad hoc", [](Rig &r) { r.put(kSource, nullptr); }, unsigned_},
        {"not the daemon", [](Rig &r) { r.put(kSource, &teamKey(), "dev.ostrel.cli"); }, unsigned_},
        {"silent", [](Rig &r) { r.answer = printed(""); }, kSource + " did not report a version",
         true},
        {"older", [](Rig &r) { r.answer = printed("1.1.9"); },
         kSource + " is version 1.1.9, not newer than 1.1.13", true},
        {"same version", [](Rig &r) { r.answer = printed("1.1.13"); },
         kSource + " is version 1.1.13, not newer than 1.1.13", true},
        {"rename", [](Rig &r) { r.files.fail("rename", kDest, EXDEV); },
         "could not replace " + kDest, true},
    };
    for (const Case &c : cases) {
        Rig r;
        c.arrange(r);
        EXPECT_EQ(r.attempt(c.name == std::string("link") ? "/opt/ostrel/h" : kSource),
                  Outcome(Rejected{c.reason}))
            << c.name;
        EXPECT_EQ(r.files.find(kDest)->bytes, "old daemon") << c.name;
        EXPECT_EQ(r.files.find(kStaging), nullptr) << c.name;
        EXPECT_EQ(r.processes.runs.size(), c.ran ? 1u : 0u) << c.name;
    }
}

}  // namespace
