// The whole path from smc_open to the attribute files, on plain files in a temporary
// OSTREL_ROOT: the default transport finds the device, takes the real lock, reads and
// stores. Plain files cannot act as a selector, so the tree holds one key only.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "ostrel/smc.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using ostrel::SMC;
using ostrel::SMCError;

// Sets or unsets an environment variable for the life of the object.
class ScopedVariable {
  public:
    ScopedVariable(const char *name, std::optional<std::string> value) : name_(name) {
        if (const char *old = std::getenv(name)) {
            old_ = old;
        }
        value ? setenv(name, value->c_str(), 1) : unsetenv(name);
    }
    ~ScopedVariable() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

  private:
    const char *name_;
    std::optional<std::string> old_;
};

class PlainFilesTest : public testing::Test {
  protected:
    void SetUp() override {
        put("name", "applesmc\n");
        put("key_count", "1\n");
        put("key_at_index", "0\n");
        put("key_at_index_name", "FS! \n");
        put("key_at_index_type", "ui16\n");
        put("key_at_index_data_length", "2\n");
        put("key_at_index_data", std::string("\x00\x01", 2));
        put("fan1_manual", "1\n");
        put("fan2_manual", "0\n");
    }

    static constexpr const char *kDevice = "sys/devices/platform/applesmc.768/";
    void put(const std::string &name, const std::string &contents) {
        root.put(kDevice + name, contents);
    }
    std::string slurp(const std::string &name) { return root.read(kDevice + name); }

    ostrel::test::TempDir root;
    ScopedVariable root_{"OSTREL_ROOT", root.path()};
    ScopedVariable selector_{"OSTREL_SMC", std::nullopt};
};

TEST_F(PlainFilesTest, TheDefaultTransportUsesTheDeviceUnderTheRoot) {
    SMC smc;
    EXPECT_EQ(smc.key(0), ostrel::FourCC("FS! "));
    EXPECT_EQ(smc.readDouble("FS! "), 1);
    smc.write("FS! ", 2.0);
    EXPECT_EQ(slurp("fan1_manual"), "0");
    EXPECT_EQ(slurp("fan2_manual"), "1");
    EXPECT_EQ(slurp("key_at_index"), "0");
    EXPECT_TRUE(fs::exists(root.path() + "/run/dev.ostrel.applesmc.lock"));
}

TEST_F(PlainFilesTest, GarbledAttributesAreAKernelErrorNotACrash) {
    put("key_count", "many\n");
    SMC smc;
    try {
        smc.info("TC0P");
        ADD_FAILURE() << "no error";
    } catch (const SMCError &error) {
        EXPECT_EQ(error, SMCError::kernel(static_cast<std::int32_t>(SMC_KERN_ERROR)));
    }
}

TEST_F(PlainFilesTest, WithoutADeviceThereIsNoService) {
    fs::remove_all(root.path() + "/sys");
    EXPECT_THROW(SMC(), SMCError);
    EXPECT_EQ(SMC::openDetail(),
              "no SMC found (no applesmc device in " + root.path() +
                  "/sys/devices/platform/applesmc.768 or " + root.path() +
                  "/sys/bus/acpi/devices/APP0001:00 (is the applesmc module loaded?)); set "
                  "OSTREL_SMC to memory:PROFILE, vsmc:SOCKET or applesmc[:DIR]");

    ScopedVariable named("OSTREL_SMC", "applesmc");
    EXPECT_THROW(SMC(), SMCError);
    EXPECT_NE(SMC::openDetail().find("is the applesmc module loaded?"), std::string::npos);

    ScopedVariable explicitDir("OSTREL_SMC", "applesmc:" + root.path());
    EXPECT_THROW(SMC(), SMCError);
    EXPECT_EQ(SMC::openDetail(),
              root.path() + " is not an applesmc device (no key_count attribute)");
}

}  // namespace
