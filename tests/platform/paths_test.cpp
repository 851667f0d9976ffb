// System paths under OSTREL_ROOT and the per-user cache path.

#include <gtest/gtest.h>

#include "ostrel/platform/paths.h"

namespace {

using ostrel::platform::FakeEnvironment;
using ostrel::platform::Paths;

TEST(PathsTest, SystemPathsMoveInsideTheRoot) {
    FakeEnvironment env;
    EXPECT_EQ(Paths(env).helperSocket(), "/run/dev.ostrel.helper.sock");
    env.set("OSTREL_ROOT", "/tmp/sandbox//");
    Paths paths(env);
    EXPECT_EQ(paths.helperSocket(), "/tmp/sandbox/run/dev.ostrel.helper.sock");
    EXPECT_EQ(paths.sysfs(), "/tmp/sandbox/sys");
    EXPECT_EQ(paths.policiesFile(), "/tmp/sandbox/var/lib/dev.ostrel/fan-policies.json");
    EXPECT_EQ(paths.applesmcLock(), "/tmp/sandbox/run/dev.ostrel.applesmc.lock");
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
    EXPECT_TRUE(Paths(env).discoveryCache().ends_with("/.cache/dev.ostrel/discovery-v2.txt"));
}

}  // namespace
