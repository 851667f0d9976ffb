// System paths under OSTREL_ROOT, the per-user cache path, and how files are read.

#include <gtest/gtest.h>

#include <filesystem>

#include "ostrel/platform/files.h"
#include "ostrel/platform/paths.h"
#include "support/temp_dir.h"

namespace {

using ostrel::platform::FakeEnvironment;
using ostrel::platform::Paths;

TEST(PathsTest, SystemPathsMoveInsideTheRoot) {
    FakeEnvironment env;
    EXPECT_EQ(Paths(env).helperSocket(), "/run/dev.ostrel.helper.sock");
    env.set("OSTREL_ROOT", "/tmp/sandbox//");
    EXPECT_EQ(Paths(env).helperSocket(), "/tmp/sandbox/run/dev.ostrel.helper.sock");
    // The other system paths are joined the same way; the applesmc, installer and policy
    // tests use them under a root.
}

TEST(PathsTest, DiscoveryCacheFollowsXdgThenHome) {
    FakeEnvironment env({{"HOME", "/home/ann"}, {"OSTREL_ROOT", "/ignored"}});
    EXPECT_EQ(Paths(env).discoveryCache(), "/home/ann/.cache/dev.ostrel/discovery-v2.txt");
    env.set("XDG_CACHE_HOME", "relative/is/ignored");
    EXPECT_EQ(Paths(env).discoveryCache(), "/home/ann/.cache/dev.ostrel/discovery-v2.txt");
    env.set("XDG_CACHE_HOME", "/var/cache/ann");
    EXPECT_EQ(Paths(env).discoveryCache(), "/var/cache/ann/dev.ostrel/discovery-v2.txt");
    env.unset("XDG_CACHE_HOME");
    env.set("HOME", "");
    env.setAccount("/home/ann", 1000);
    EXPECT_EQ(Paths(env).discoveryCache(), "/home/ann/.cache/dev.ostrel/discovery-v2.txt")
        << "an empty HOME gives way to the account record";
    env.setAccount(std::nullopt, 1000);
    EXPECT_EQ(Paths(env).discoveryCache(), "/.cache/dev.ostrel/discovery-v2.txt")
        << "with no record an empty HOME is used as it is";
    env.unset("HOME");
    env.set("TMPDIR", "/run/user/1000/");
    EXPECT_EQ(Paths(env).discoveryCache(), "/run/user/1000/dev.ostrel-1000/discovery-v2.txt");
    env.unset("TMPDIR");
    env.setAccount(std::nullopt, 1234);
    EXPECT_EQ(Paths(env).discoveryCache(), "/tmp/dev.ostrel-1234/discovery-v2.txt")
        << "never one shared name in a directory anyone may write";
}

TEST(FilesTest, ReadKeepsBytesBeforeAFailedReadAndReadOwnRefusesFilesOthersMayWriteOrTooLong) {
    ostrel::test::TempDir dir;
    const ostrel::platform::Files &files = ostrel::platform::realFiles();
    EXPECT_EQ(files.read(dir.path()), "") << "opens, then the first read fails";
    EXPECT_EQ(files.read(dir.path() + "/missing"), std::nullopt);
    std::string file = dir.put("cache", "mine");
    EXPECT_EQ(files.readOwn(file, 100), "mine");
    EXPECT_EQ(files.readOwn(file, 3), std::nullopt) << "longer than asked for";
    std::string big = dir.put("big", std::string(70000, 'x'));
    EXPECT_EQ(files.readAtMost(big, 100000).value_or("").size(), 70000u);
    EXPECT_EQ(files.readAtMost(big, 69999), std::nullopt);
    std::filesystem::permissions(file, std::filesystem::perms::group_write,
                                 std::filesystem::perm_options::add);
    EXPECT_EQ(files.readOwn(file, 100), std::nullopt);
    std::filesystem::create_symlink(dir.path() + "/cache", dir.path() + "/link2");
    EXPECT_EQ(files.readOwn(dir.path() + "/link2", 100), std::nullopt) << "links are not followed";
    EXPECT_EQ(files.readOwn(dir.path(), 100), std::nullopt) << "not a regular file";
}

}  // namespace
