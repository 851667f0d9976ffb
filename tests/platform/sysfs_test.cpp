// The real attribute files and lock, on plain files in a temporary directory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "ostrel/platform/sysfs.h"
#include "ostrel/platform/unique_fd.h"
#include "support/temp_dir.h"

namespace {

using ostrel::platform::realSysfs;

TEST(RealSysfsTest, ReadsAndStoresWholeAttributesAndLocksWithErrno) {
    ostrel::test::TempDir dir;
    std::string data = dir.put("key_at_index_data", std::string("\x00\x0b\xb8", 3));
    EXPECT_EQ(realSysfs().read(data).contents, std::string("\x00\x0b\xb8", 3));
    EXPECT_EQ(realSysfs().read(dir.path() + "/missing").error, ENOENT);

    std::string output = dir.put("fan1_output", "2000\n");
    EXPECT_EQ(realSysfs().write(output, "3000"), 0);
    EXPECT_EQ(dir.read("fan1_output"), "3000");
    // Attributes are never created by writing them.
    EXPECT_EQ(realSysfs().write(dir.path() + "/fan9_output", "1"), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/fan9_output"));
    if (geteuid() != 0) {  // root may write anything
        chmod(output.c_str(), 0444);
        EXPECT_EQ(realSysfs().write(output, "1"), EACCES);
    }

    // The lock is created private and excludes other holders.
    std::string path = dir.path() + "/run/sub/app.lock";
    auto othersMayLock = [&] {
        ostrel::platform::UniqueFd other(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        return flock(other.get(), LOCK_EX | LOCK_NB) == 0;
    };
    {
        ostrel::platform::LockResult held = realSysfs().lockExclusive(path);
        ASSERT_NE(held.lock, nullptr);
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
        EXPECT_FALSE(othersMayLock());
    }
    EXPECT_TRUE(othersMayLock());

    dir.put("file", "x");
    EXPECT_EQ(realSysfs().lockExclusive(dir.path() + "/file/below.lock").error, ENOTDIR);
}

}  // namespace
