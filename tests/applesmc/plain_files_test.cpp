// The whole path from opening by selector to the attribute files, on plain files in a
// temporary OSTREL_ROOT: the default transport finds the device, takes the real lock,
// reads and stores. Plain files cannot act as a selector, so the tree holds one key only.

#include <gtest/gtest.h>

#include <filesystem>

#include "ostrel/smc.h"
#include "support/temp_dir.h"
#include "support/transports.h"

namespace {

namespace fs = std::filesystem;
using ostrel::SMC;
using ostrel::SMCError;

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
    SMC open(const std::string &selector) { return SMC(transports->open(selector)); }

    ostrel::test::TempDir root;
    ostrel::platform::FakeEnvironment env{{{"OSTREL_ROOT", root.path()}}};
    std::shared_ptr<csmc::TransportRegistry> transports = ostrel::test::allTransports(env);
};

TEST_F(PlainFilesTest, TheDefaultTransportUsesTheDeviceUnderTheRoot) {
    SMC smc = open("");
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
    SMC smc = open("");
    try {
        smc.info("TC0P");
        ADD_FAILURE() << "no error";
    } catch (const SMCError &error) {
        EXPECT_EQ(error, SMCError::kernel(static_cast<std::int32_t>(SMC_KERN_ERROR)));
    }
}

TEST_F(PlainFilesTest, WithoutADeviceThereIsNoService) {
    fs::remove_all(root.path() + "/sys");
    EXPECT_THROW(open(""), SMCError);
    EXPECT_EQ(SMC::openDetail(),
              "no SMC found (no applesmc device in " + root.path() +
                  "/sys/devices/platform/applesmc.768 or " + root.path() +
                  "/sys/bus/acpi/devices/APP0001:00 (is the applesmc module loaded?)); set "
                  "OSTREL_SMC to memory:PROFILE, vsmc:SOCKET or applesmc[:DIR]");
    EXPECT_THROW(open("applesmc"), SMCError);
    EXPECT_NE(SMC::openDetail().find("is the applesmc module loaded?"), std::string::npos);
    EXPECT_THROW(open("applesmc:" + root.path()), SMCError);
    EXPECT_EQ(SMC::openDetail(),
              root.path() + " is not an applesmc device (no key_count attribute)");
}

}  // namespace
