// The kit on a real-hardware transport: discovery over the fake applesmc driver finds what
// it finds on the same virtual Mac in-process, though the driver hides attribute bytes.
// (Fan writes are checked a layer at a time: the writer's SMC writes in
// tests/ostrelkit/fan_writer_test.cpp, their fan-file stores in applesmc_test.cpp.)

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "csmc/applesmc.h"
#include "ostrel/sampler.h"
#include "support/fake_applesmc.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using test::FakeApplesmc;

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
