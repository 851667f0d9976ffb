// The JSON calls of the wire protocol, answered without a socket.

#include <gtest/gtest.h>

#include "ostrel/vsmc/virtual_mac.h"

namespace {

using namespace ostrel::vsmc;
using ostrel::Json;

class VirtualMacCalls : public testing::Test {
  protected:
    VirtualMac mac{builtinProfile("macbookpro10-1"), 3, 2};

    std::string error(const Json &request) {
        Json reply = mac.call(request);
        EXPECT_EQ(reply["ok"], false) << request.dump();
        return reply.value("error", "");
    }
};

TEST_F(VirtualMacCalls, RequestsThatCannotBeCarriedOutSayWhy) {
    EXPECT_EQ(error(Json::array()), "a request is an object with a \"call\" name");
    EXPECT_EQ(error({{"call", 5}}), "a request is an object with a \"call\" name");
    EXPECT_EQ(error({{"call", "load"}, {"cpu", "full"}}), "'cpu' must be a number from 0 to 1");
    EXPECT_EQ(error({{"call", "speed"}, {"value", 1e9}}),
              "'value' must be a number from 0 to 1000");
    EXPECT_EQ(error({{"call", "advance"}, {"seconds", 1e7}}),
              "'seconds' must be a number from 0 to 86400");
    EXPECT_EQ(error({{"call", "fault"}, {"key", "TOOLONG"}, {"result", 1}}),
              "'key' must be a key of 1 to 4 characters");
    EXPECT_EQ(error({{"call", "fault"}, {"command", "erase"}, {"result", 1}}),
              "'command' must be read, write, key-info or key-at-index");
    EXPECT_EQ(error({{"call", "stall"}, {"fan", 1}, {"stalled", "yes"}}).substr(0, 26),
              "cannot carry out the call:");
    EXPECT_EQ(error({{"call", "power"}, {"external", 1}}),
              "'external' must be true (adapter) or false (battery)");
    EXPECT_EQ(error({{"call", "restore"}, {"key", "TC0P"}}), "that key has not vanished");
}

TEST_F(VirtualMacCalls, FaultsAndLimitsChangeTheMachine) {
    ASSERT_EQ(mac.call({{"call", "fault"},
                        {"key", "FS!"},
                        {"command", "write"},
                        {"times", 2},
                        {"result", 0x86}})["ok"],
              true);
    ASSERT_EQ(mac.machine().faults().size(), 1u);
    EXPECT_EQ(mac.machine().faults()[0].key, smc_fourcc("FS! "));
    EXPECT_EQ(mac.machine().faults()[0].times, 2u);
    EXPECT_EQ(mac.call({{"call", "clear-faults"}})["ok"], true);
    EXPECT_TRUE(mac.machine().faults().empty());
    EXPECT_EQ(mac.call({{"call", "limits"}, {"fan", 1}, {"min", 6000}, {"max", 100}})["ok"], true);
    EXPECT_EQ(mac.call({{"call", "unlock-refusals"}, {"value", 4}})["ok"], true);
    EXPECT_EQ(error({{"call", "limits"}, {"fan", 0}, {"min", -1}, {"max", 100}}),
              "the fan's limit keys cannot hold those values");
}

}  // namespace
