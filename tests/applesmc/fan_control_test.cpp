// The kit on a real-hardware transport: discovery over the fake applesmc driver finds what
// it finds on the same virtual Mac in-process, and a fan writer's whole cycle reaches the
// driver as exactly the expected fan-file writes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csmc/applesmc.h"
#include "ostrel/fan_writer.h"
#include "ostrel/sampler.h"
#include "support/fake_applesmc.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using test::FakeApplesmc;
using Stores = std::vector<FakeApplesmc::Store>;

class ApplesmcFanControlTest
    : public testing::TestWithParam<std::pair<const char *, FakeApplesmc::Variant>>,
      protected test::Sandbox {
  protected:
    vsmc::Machine machine = test::builtinMachine(GetParam().first);
    FakeApplesmc driver{machine, GetParam().second};
    std::unique_ptr<platform::Sysfs> files = driver.opener(0);

    std::shared_ptr<SMC> applesmc() {
        return std::make_shared<SMC>(std::make_unique<csmc::ApplesmcTransport>(
            driver.device(), root.path() + "/run/dev.ostrel.applesmc.lock", *files));
    }
};

TEST_P(ApplesmcFanControlTest, DiscoveryFindsTheSameSensorsAndFansAsInProcess) {
    vsmc::Machine reference = test::builtinMachine(GetParam().first);
    SMC memory(std::make_unique<test::BareMemoryTransport>(reference));
    Discovery expected = discover(memory, "m", std::nullopt, system);
    Discovery found = discover(*applesmc(), "m", std::nullopt, system);
    ASSERT_EQ(found.sensors.size(), expected.sensors.size());
    for (std::size_t i = 0; i < found.sensors.size(); ++i) {
        SensorDescriptor a = found.sensors[i];
        SensorDescriptor b = expected.sensors[i];
        a.info.attributes = b.info.attributes = 0;  // the driver hides attribute bytes
        EXPECT_EQ(a, b) << b.info.key.description();
    }
    EXPECT_EQ(found.fans, expected.fans);
    EXPECT_EQ(found.fanForceKey, expected.fanForceKey);
    EXPECT_EQ(found.fanTestKey, expected.fanTestKey);
}

TEST_P(ApplesmcFanControlTest, AWritersCycleIsExactlyTheExpectedFanFileWrites) {
    auto smc = applesmc();
    FanWriter writer(smc, discover(*smc, "m", std::nullopt, system), clock);
    writer.setManual(1, 3000);
    writer.setManual(0, 1e9);
    writer.setAuto(1);
    writer.setAllAuto();
    if (GetParam().second == FakeApplesmc::Variant::mainline) {
        EXPECT_EQ(driver.fanStores(), (Stores{{"fan2_manual", "1"},
                                              {"fan2_output", "3000"},
                                              {"fan1_manual", "1"},
                                              {"fan1_output", "5940"},
                                              {"fan2_manual", "0"},
                                              {"fan1_manual", "0"}}))
            << "handing back an automatic fan changes no bit, so nothing is stored";
    } else {
        EXPECT_EQ(driver.fanStores(), (Stores{{"fan2_manual", "1"},
                                              {"fan2_output", "3000"},
                                              {"fan1_manual", "1"},
                                              {"fan1_output", "5297"},
                                              {"fan2_manual", "0"},
                                              {"fan1_manual", "0"},
                                              {"fan2_manual", "0"}}));
    }
}

INSTANTIATE_TEST_SUITE_P(IntelMacs, ApplesmcFanControlTest,
                         testing::Values(std::pair{"macbookpro10-1",
                                                   FakeApplesmc::Variant::mainline},
                                         std::pair{"macbookpro16-1", FakeApplesmc::Variant::t2}),
                         [](const auto &info) {
                             return std::string(info.param.second == FakeApplesmc::Variant::mainline
                                                    ? "Mainline"
                                                    : "T2");
                         });

}  // namespace
