// The control service in-process, on a real socket in a temporary directory, with this
// test program as the client (the build signs it as the command-line program, so vetting
// serves it). The controller is never started: no timer ticks behind the tests' backs,
// and every tick seen is one the service queued.

#include "control_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "support/line_client.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;
using namespace std::chrono_literals;
using testing::ElementsAre;

using Line = test::LineClient;

constexpr auto setPolicy = test::setPolicyLine;
constexpr auto request = test::requestLine;

struct ServiceRig : test::Sandbox {
    explicit ServiceRig(CodeRequirement requirement = clientRequirement(std::nullopt))
        : vetting(std::move(requirement), platform::realProcessAccess()) {
        service = std::make_unique<helper::ControlService>(
            helper::ControlServiceServices{controller, vetting, platform::realProcessAccess(),
                                           platform::realFiles(), clock, log, socket});
        service->start();
    }
    // Holds the controller's queue until the returned promise is set.
    std::shared_ptr<std::promise<void>> block() {
        auto gate = std::make_shared<std::promise<void>>();
        queue.async([future = gate->get_future().share()] { future.wait(); });
        return gate;
    }
    std::vector<std::string> logged() {
        std::lock_guard lock(mutex);
        return lines;
    }

    vsmc::Machine machine = test::builtinMachine("macbookpro16-1");
    std::mutex mutex;
    std::vector<std::string> lines;
    helper::LogSink log = [this](std::string_view line) {
        std::lock_guard lock(mutex);
        lines.emplace_back(line);
    };
    platform::FakeFiles files;
    platform::SerialQueue queue{"test.control", {}};
    helper::Controller controller{helper::ControllerServices{
        queue, system, files, "/policies.json", log, [this] {
            return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine));
        }}};
    PeerVetting vetting;
    std::string socket = root.path() + "/run/helper.sock";
    std::unique_ptr<helper::ControlService> service;
};

class ControlServiceTest : public testing::Test, protected ServiceRig {};

TEST_F(ControlServiceTest, VersionNeverWaitsTheRestAnswerInOrderAndASuccessfulChangeTicksOnce) {
    Line line(socket);
    machine.clearJournal();
    auto gate = block();  // a long tick, say
    line.send(
        setPolicy(7, 0, R"({"fixed":{"rpm":2500}})") + request(8, ControlProtocol::Call::policies) +
        setPolicy(9, 0, R"({"fixed":{"rpm":-5}})") + request(-1, ControlProtocol::Call::version));
    EXPECT_EQ(line.reply(), R"({"id":-1,"reply":"1/1.1.13"})");
    gate->set_value();
    EXPECT_EQ(line.reply(), R"({"id":7,"reply":null})");
    EXPECT_EQ(line.reply(), R"({"id":8,"reply":"{\"0\":{\"fixed\":{\"rpm\":2500}}}"})");
    EXPECT_EQ(line.reply(), R"({"id":9,"reply":"invalid rpm"})");
    line.send(setPolicy(10, 0, "[1]") + setPolicy(11, 5, R"({"auto":{}})"));
    EXPECT_THAT(line.reply(), testing::Optional(testing::StartsWith(R"({"id":10,"reply":")")));
    EXPECT_EQ(line.reply(), R"({"id":11,"reply":"no fan with id 5"})");
    queue.sync([] {});
    std::size_t samples = 0;  // a tick reads each fan's speed once; refused changes queue none
    for (const vsmc::ExchangeRecord &r : machine.journal()) {
        samples += r.command == SMC_CMD_READ && r.key == smc_fourcc("F0Ac");
    }
    EXPECT_EQ(samples, 1u);
}

// Which lines are requests is the protocol's business (control_protocol_test.cpp); here,
// that a refused line, one past the length bound and a client with too many requests
// waiting each lose their connection unanswered, while others are served; and a stop.
TEST_F(ControlServiceTest, BadLinesTooManyRequestsWaitingAndAStopCloseConnectionsUnanswered) {
    Line greedy(socket), patient(socket);
    auto gate = block();
    std::string lines;
    for (std::size_t i = 0; i <= service->limits().maxPendingPerConnection; ++i) {
        lines += request(static_cast<std::int64_t>(i), ControlProtocol::Call::policies);
    }
    greedy.send(lines);
    for (const std::string &bytes :
         {std::string("not json\n"), std::string(ControlProtocol::maxLineBytes + 1, ' ')}) {
        Line line(socket);
        line.send(bytes);
        EXPECT_EQ(line.reply(), std::nullopt) << bytes.substr(0, 30);
    }
    patient.send(request(99, ControlProtocol::Call::policies));
    gate->set_value();
    EXPECT_EQ(greedy.reply(), std::nullopt);
    EXPECT_EQ(patient.reply(), R"({"id":99,"reply":"{}"})");
    // Stopped, the service drops its connections; nothing it queued changes anything.
    gate = block();
    patient.send(setPolicy(1, 0, R"({"fixed":{"rpm":2500}})") +
                 request(2, ControlProtocol::Call::version));
    EXPECT_EQ(patient.reply(), R"({"id":2,"reply":"1/1.1.13"})") << "so the change is queued";
    service->stop();
    EXPECT_EQ(patient.reply(), std::nullopt);
    gate->set_value();
    queue.sync([] {});
    EXPECT_TRUE(controller.policies().empty());
}

TEST(ControlServiceRefusals, RefusedPeersAreLoggedTenTimesAMinute) {
    // Only the app may talk to this one, and the test is not the app.
    ServiceRig rig(CodeRequirement{{"dev.ostrel.app"}, std::nullopt, std::nullopt});
    for (int i = 0; i < 13; ++i) {
        rig.clock.advance(i == 12 ? 61s : 0s);  // the last one a minute later
        Line line(rig.socket);
        line.send(request(1, ControlProtocol::Call::version));
        EXPECT_EQ(line.reply(), std::nullopt);
    }
    std::vector<std::string> lines = rig.logged();
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_THAT(lines[0], testing::MatchesRegex("refused process [0-9]+ .*"));
    EXPECT_EQ(lines[10], "refused 2 more peers in the last minute");
}

}  // namespace
