// The policies file: what loading keeps, what saving
// refuses, and, on the real file system, that a save is atomic and leaves exact modes.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <filesystem>

#include "ostrel/policy_store.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;

const std::string kPath = "/var/lib/dev.ostrel/fan-policies.json";

TEST(PolicyStoreTest, LoadDropsBadMembersOneByOneAndBadFilesWholeSaveRefusesThem) {
    struct Case {
        std::optional<std::string> file;
        PolicyMap expected;
    };
    const FanPolicy f2500 = FanPolicy::fixed(2500);
    const Case cases[] = {
        {R"({"0":{"fixed":{"rpm":2500}},"01":{"fixed":{"rpm":1}},"-1":{"fixed":{"rpm":1}}})",
         {{0, f2500}}},
        {R"({"0":{"fixed":{"rpm":-5}},"1":{"fixed":{"rpm":2500}},"2":{"fixed":{"rpm":"nan"}},
            "3":{"curve":{"_0":{"points":[{"temperature":70,"rpm":1},{"temperature":50,"rpm":2}],
            "sensor":"cpu"}}}})",
         {{1, f2500}}},
        {"hello", {}},
        {R"({"0":{"fixed":{"rpm":2500}},"1":{"fan":{}}})", {}},  // one undecodable value
        {std::nullopt, {}},
        {R"({"0":{"fixed":{"rpm":2500}}})" + std::string(PolicyStore::kMaxFileSize, ' '), {}},
    };
    for (const Case &c : cases) {
        platform::FakeFiles files;
        if (c.file) {
            files.put(kPath, *c.file);
        }
        EXPECT_EQ(PolicyStore::load(kPath, files), c.expected) << c.file.value_or("(none)");
    }

    // Save refuses an invalid policy and leaves the file as it was.
    platform::FakeFiles files;
    files.put(kPath, "old");
    // What is wrong with the policy is its validation's message (fan_policy_test).
    EXPECT_THROW(
        PolicyStore::save({{0, FanPolicy::fixed(2000)}, {1, FanPolicy::fixed(-1)}}, kPath, files),
        FanControlError);
    EXPECT_EQ(files.read(kPath), "old");
}

// A save creates the directory and gives exact modes whatever the umask; a save killed
// while writing leaves the old file.
TEST(PolicyStoreFilesTest, SavesAreAtomicAndGiveExactModes) {
    test::TempDir root;
    std::string path = root.path() + kPath;
    const platform::Files &files = platform::realFiles();
    PolicyMap policies{{0, FanPolicy::fixed(2500)}, {1, FanPolicy::fixed(INFINITY)}};
    mode_t old = umask(077);
    PolicyStore::save(policies, path, files);
    umask(old);
    EXPECT_EQ(root.read(kPath.substr(1)),
              R"({"0":{"fixed":{"rpm":2500}},"1":{"fixed":{"rpm":"inf"}}})");
    EXPECT_EQ(std::filesystem::status(root.path() + "/var/lib/dev.ostrel").permissions(),
              std::filesystem::perms(0755));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0644));

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The kernel kills the process (SIGXFSZ) as soon as the new file passes 16 bytes.
        rlimit limit{16, 16};
        setrlimit(RLIMIT_FSIZE, &limit);
        signal(SIGXFSZ, SIG_DFL);
        PolicyStore::save({{0, FanPolicy::fixed(1000)}, {2, FanPolicy::fixed(3000)}}, path, files);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    EXPECT_EQ(PolicyStore::load(path, files), policies);
}

}  // namespace
