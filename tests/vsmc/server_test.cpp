// The virtual Mac's server with the channel's vsmc transport and `ctl`: in-process on a
// temporary socket with a fake clock (several clients, privilege, faults, garbage,
// abuse, time), and the ostrel-vsmc process itself for start-up and shutdown.

#include <signal.h>
#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "app.h"
#include "csmc/vsmc_transport.h"
#include "ostrel/platform/json.h"
#include "ostrel/vsmc/server.h"
#include "ostrel/vsmc/virtual_mac.h"
#include "support/background_process.h"
#include "support/io_thread.h"
#include "support/temp_dir.h"
#include "support/test_machine.h"

namespace {

using namespace std::chrono_literals;
using ostrel::platform::FakeClock;
using ostrel::test::closedByPeer;
using ostrel::test::rawSocket;
using ostrel::test::readNumber;
using ostrel::test::writeNumber;
using ostrel::vsmc::Server;
using ostrel::vsmc::VirtualMac;
using testing::HasSubstr;
using testing::Pair;

// A connection on the vsmc transport, closed with the object; `opened` tells how opening
// went.
struct Client {
    Client(const std::string &socket, ostrel::platform::Clock &clock,
           std::chrono::milliseconds timeout = csmc::VsmcTransport::kDefaultTimeout)
        : opened(csmc::VsmcTransport::open(socket, clock, timeout)) {
        if (opened.status == SMC_OK) {
            transport = static_cast<csmc::VsmcTransport *>(opened.transport.get());
            csmc::openConnection(&conn, std::move(opened.transport));
        }
    }
    ~Client() { smc_close(conn); }
    smc_conn *get() const { return conn; }
    double read(const char *key) { return readNumber(conn, key); }
    std::int32_t tryRead(const char *key) {
        double ignored = 0;
        return smc_read_double(conn, smc_fourcc(key), &ignored);
    }
    nlohmann::json call(const nlohmann::json &request) {
        auto reply = transport->call(request);
        EXPECT_TRUE(reply.has_value());
        return reply.value_or(nlohmann::json());
    }

    csmc::OpenedTransport opened;
    csmc::VsmcTransport *transport = nullptr;
    smc_conn *conn = nullptr;
};

// A server on a temporary socket, run on its own thread, with a clock the test moves.
class VsmcServer : public testing::Test {
  protected:
    void serve(const std::string &profile, double speed = 0) {
        mac.emplace(ostrel::vsmc::builtinProfile(profile), 0, speed);
        server = io.run([&] {
            return std::make_unique<Server>(io.io, *mac, socket, ostrel::platform::realFiles(),
                                            clock, 100ms, Server::defaultLimits());
        });
    }
    void TearDown() override {
        io.run([&] { server.reset(); });
    }

    // Runs `ostrel-vsmc ctl ARGS` in-process on this server.
    struct Ran {
        int status;
        std::string out;
        std::string err;
    };
    Ran ctl(std::vector<std::string> args, std::string on = "") {
        args.insert(args.begin(), {"ostrel-vsmc", "ctl", "--socket", on.empty() ? socket : on});
        std::vector<const char *> argv;
        for (const std::string &a : args) {
            argv.push_back(a.c_str());
        }
        std::ostringstream out;
        std::ostringstream err;
        ostrel::vsmc::app::Context context{&out, &err, &ostrel::platform::realFiles(), &environment,
                                           &ostrel::platform::realClock()};
        int status = ostrel::vsmc::app::run(static_cast<int>(argv.size()), argv.data(), context);
        return {status, out.str(), err.str()};
    }

    ostrel::test::TempDir dir;
    std::string socket = dir.path() + "/run/vsmc.sock";
    ostrel::platform::FakeEnvironment environment;
    FakeClock clock;
    std::optional<VirtualMac> mac;
    ostrel::test::IoThread io;
    std::unique_ptr<Server> server;
};

// Several clients see one machine, and one connection may be shared by threads.
TEST_F(VsmcServer, AnswersTheChannelAndJsonCallsToSeveralClientsAndGoneOrSilentSaysSo) {
    serve("macbookpro18-2");
    Client client(socket, clock);
    ASSERT_EQ(client.opened.status, SMC_OK);
    EXPECT_THAT(client.transport->temperatureSensors(),
                testing::Optional(testing::Contains(
                    testing::Field(&csmc::TemperatureSensor::name, "pACC MTR Temp Sensor0"))));
    EXPECT_EQ(client.transport->batteryProperties().value_or(nullptr)["MaxCapacity"], 100);

    Client other(socket, clock);
    ASSERT_EQ(writeNumber(client.get(), "Ftst", 1), SMC_OK) << "tests run as root";
    ASSERT_EQ(writeNumber(client.get(), "F1Tg", 3000), SMC_OK);
    EXPECT_EQ(other.read("Ftst"), 1);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                double value = 0;
                failures += smc_read_double(other.get(), smc_fourcc("F1Tg"), &value) != SMC_OK ||
                            value != 3000;
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(client.call({{"call", "status"}})["status"]["writes"]["count"], 2);

    // A dead server gives a kernel code and no hang.
    io.run([&] { server.reset(); });
    EXPECT_EQ(client.tryRead("F0Mx"), static_cast<std::int32_t>(SMC_KERN_NOT_RESPONDING));
    EXPECT_THAT(smc_error_detail(), HasSubstr("the virtual Mac at " + socket + ": "));

    // Something that accepts connections but never answers, as a stopped (Ctrl-Z) server
    // does: opening says so instead of every request waiting out the time-out (none here).
    std::string path = dir.path() + "/silent.sock";
    int listener = rawSocket(path, true);
    ASSERT_EQ(::listen(listener, 4), 0);
    Client silent(path, clock, 0ms);
    EXPECT_EQ(silent.opened.status, SMC_ENOSERVICE);
    EXPECT_THAT(silent.opened.detail,
                HasSubstr("accepted the connection but did not answer within"));
    ::close(listener);

    std::string none = dir.path() + "/none.sock";
    EXPECT_EQ(Client(none, clock).opened.detail,
              "no virtual Mac answers at " + none +
                  " (no such socket); start one with: ostrel-vsmc --profile NAME --socket " + none);
}

TEST_F(VsmcServer, RefusesWritesFromAPeerThatIsNotRoot) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "needs root to drop to another user";
    }
    serve("macbookpro18-2");
    ::chmod(dir.path().c_str(), 0755);  // the socket must be reachable for that user
    pid_t child = ::fork();
    if (child == 0) {
        // The child reports through its exit status: 0 when everything held.
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(10);
        }
        Client client(socket, ostrel::platform::realClock());
        double value = 0;
        int code = client.opened.status != SMC_OK                                        ? 11
                   : writeNumber(client.get(), "Ftst", 1) != SMC_ENOTPRIVILEGED          ? 12
                   : smc_read_double(client.get(), smc_fourcc("Ftst"), &value) != SMC_OK ? 13
                   : value != 0                                                          ? 14
                                                                                         : 0;
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    Client root(socket, clock);
    auto writes = root.call({{"call", "status"}})["status"]["writes"]["recent"];
    EXPECT_EQ(std::tuple(writes.size(), writes[0]["privileged"], writes[0]["kern"]),
              std::tuple(1u, false, SMC_KERN_NOT_PRIVILEGED));
}

TEST_F(VsmcServer, InjectedFaultsReachTheChannelAndBadCallsOrArgumentsSayWhy) {
    serve("macbookpro10-1");
    Client client(socket, clock);
    client.read("F0Mx");
    ASSERT_EQ(ctl({"fail", "--key", "F0Mx", "--command", "read", "--kernel", "0xe00002ca"}).status,
              0);
    EXPECT_EQ(client.tryRead("F0Mx"), static_cast<std::int32_t>(SMC_KERN_IO_ERROR));
    EXPECT_EQ(client.tryRead("F0Mx"), SMC_OK);

    ASSERT_EQ(ctl({"refuse", "FS!", "--times", "2"}).status, 0);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_EFIRMWARE);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_EFIRMWARE);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_OK);
    ASSERT_EQ(ctl({"refuse", "FS!"}).status, 0);
    ASSERT_EQ(ctl({"clear-faults"}).status, 0);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_OK);

    client.read("TC0P");  // its information is now cached
    ASSERT_EQ(ctl({"vanish", "TC0P"}).status, 0);
    EXPECT_EQ(client.tryRead("TC0P"), SMC_ENOKEY);
    ASSERT_EQ(ctl({"restore", "TC0P"}).status, 0);
    EXPECT_EQ(client.tryRead("TC0P"), SMC_OK);

    // ctl's bad arguments are usage errors; calls the machine refuses are failures.
    const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
        {{"load", "--cpu", "2"}, 2, ""},
        {{"fail", "--result", "0x100"}, 2, ""},
        {{"scenario"}, 2, ""},
        {{"vanish", "NOPE"}, 1, "no such key"},
        {{"limits", "5", "1", "2"}, 1, "no fan 5 (the machine has 2)"},
        {{"scenario", dir.put("bad.scenario", "at 0 cpu 7\n")}, 1, "bad.scenario:1: cpu load '7'"}};
    for (const auto &[args, status, message] : cases) {
        Ran ran = ctl(args);
        EXPECT_THAT(std::pair(ran.status, ran.err), Pair(status, HasSubstr(message))) << args[0];
    }
    Ran missing = ctl({"status"}, dir.path() + "/none.sock");
    EXPECT_THAT(std::pair(missing.status, missing.err),
                Pair(1, HasSubstr("no virtual Mac answers")));

    // Calls that cannot be carried out are answered with why.
    const std::vector<std::pair<nlohmann::json, std::string>> refused = {
        {{{"call", "warp"}}, "unknown call 'warp'"},
        {{{"call", 5}}, "a request is an object with a \"call\" name"},
        {{{"call", "load"}, {"cpu", "full"}}, "'cpu' must be a number from 0 to 1"},
        {{{"call", "speed"}, {"value", 1e9}}, "'value' must be a number from 0 to 1000"},
        {{{"call", "advance"}, {"seconds", 1e7}}, "'seconds' must be a number from 0 to 86400"},
        {{{"call", "fault"}, {"key", "TOOLONG"}, {"result", 1}},
         "'key' must be a key of 1 to 4 characters"},
        {{{"call", "fault"}, {"command", "erase"}, {"result", 1}},
         "'command' must be read, write, key-info or key-at-index"},
        {{{"call", "stall"}, {"fan", 1}, {"stalled", "yes"}}, "cannot carry out the call:"},
        {{{"call", "power"}, {"external", 1}},
         "'external' must be true (adapter) or false (battery)"},
        {{{"call", "restore"}, {"key", "TC0P"}}, "that key has not vanished"},
        {{{"call", "limits"}, {"fan", 0}, {"min", -1}, {"max", 100}},
         "the fan's limit keys cannot hold those values"}};
    for (const auto &[request, message] : refused) {
        nlohmann::json reply = client.call(request);
        EXPECT_EQ(reply["ok"], false) << request.dump();
        EXPECT_EQ(reply.value("error", "").substr(0, message.size()), message) << request.dump();
    }
    EXPECT_EQ(client.call({{"call", "limits"}, {"fan", 1}, {"min", 6000}, {"max", 100}})["ok"],
              true);
    EXPECT_EQ(client.call({{"call", "unlock-refusals"}, {"value", 4}})["ok"], true);
}

TEST_F(VsmcServer, GarbageOversizedStalledAndIdleConnectionsAreClosedAndClientsDialAgain) {
    serve("macbookpro18-2");
    Client bystander(socket, clock);
    const std::vector<std::string> frames = {
        "hello, is this the SMC?\n",
        std::string("VM\x02\x00\xff\xff\xff\x7f", 8),                       // a call of 2 GiB
        std::string("VM\x01\x00\x10\x00\x00\x00", 8) + "0123456789abcdef",  // short record
        std::string("VM\x02\x00\x05\x00\x00\x00", 8) + "[1,2]",             // not an object
        std::string("VM\x81\x00\x54\x00\x00\x00", 8),                       // a reply kind
    };
    for (const std::string &frame : frames) {
        int fd = rawSocket(socket);
        ASSERT_TRUE(ostrel::test::sendAll(fd, frame));
        EXPECT_TRUE(closedByPeer(fd)) << testing::PrintToString(frame);
        ::close(fd);
    }
    EXPECT_EQ(bystander.read("F0Mx"), 5348) << "only their own connections closed";

    // A 1 MiB call announced and never sent is held as its eight bytes until the message
    // time-out. (Connection limits and time-outs themselves are the shared listener's.)
    int greedy = rawSocket(socket);
    ostrel::test::sendAll(greedy, std::string("VM\x02\x00\x00\x00\x10\x00", 8));
    auto held = [&] {
        return io.run([&] {
            return std::pair(server->listener().connections(), server->listener().bufferedBytes());
        });
    };
    for (int spins = 0; spins < 100000 && held().second < 8; ++spins) {
        std::this_thread::yield();
    }
    EXPECT_EQ(held(), std::pair(std::size_t{2}, std::size_t{8}));
    clock.advance(Server::defaultLimits().messageTimeout);
    io.run([&] { server->listener().closeExpired(); });
    EXPECT_TRUE(closedByPeer(greedy)) << "a frame left unfinished too long";
    ::close(greedy);
    EXPECT_EQ(bystander.read("F0Mx"), 5348) << "idle, not stalled: still served";

    // Idle connections are closed too, and clients dial again unnoticed.
    clock.advance(Server::defaultLimits().idleTimeout);
    io.run([&] { server->listener().closeExpired(); });
    EXPECT_EQ(held(), std::pair(std::size_t{0}, std::size_t{0}));
    EXPECT_EQ(bystander.read("F0Mx"), 5348);
}

TEST_F(VsmcServer, CtlStatusJsonListsTheDocumentedMembersInOrderAndTheClockRunsAtItsSpeed) {
    serve("macpro7-1", 200);
    ASSERT_EQ(ctl({"advance", "60"}).status, 0);
    Ran ran = ctl({"status", "--json"});
    ASSERT_EQ(ran.status, 0) << ran.err;
    ostrel::Json status = ostrel::Json::parse(ran.out);
    std::vector<std::string> names;
    for (const auto &[name, value] : status.items()) {
        names.push_back(name);
    }
    EXPECT_THAT(
        names, testing::ElementsAre("model", "time", "seed", "load", "ambient", "externalPower",
                                    "scenario", "temperatures", "hottestCpu", "power", "fanControl",
                                    "testKey", "unlockRefusalsLeft", "fans", "battery", "writes",
                                    "exchanges", "faults", "vanished", "speed", "profile"));
    EXPECT_EQ(status["fans"].size(), 4u);  // its time: the status calls below
    EXPECT_THAT(ctl({"status"}).out,
                testing::AllOf(HasSubstr("MacPro7,1  t=60.0 s"), HasSubstr("fan 3")));

    // The clock runs at the given speed and sleeps when paused.
    Client client(socket, clock);
    auto simulated = [&] { return client.call({{"call", "status"}})["status"]["time"]; };
    EXPECT_TRUE(io.run([&] { return server->clockRunning(); }));
    clock.advance(500ms);
    io.run([&] { server->catchUp(); });
    EXPECT_NEAR(simulated().get<double>(), 160, 0.11);
    clock.advance(1s);
    ASSERT_EQ(ctl({"speed", "0"}).status, 0);
    EXPECT_NEAR(simulated().get<double>(), 360, 0.11) << "time before the call ran at 200";
    EXPECT_FALSE(io.run([&] { return server->clockRunning(); }));
    clock.advance(10s);
    client.call({{"call", "advance"}, {"seconds", 10}});
    EXPECT_NEAR(simulated().get<double>(), 370, 0.11);
}

// The ostrel-vsmc process, its announcement read from its output (which comes once it
// listens).
TEST(VsmcProcess, ServesUntilTerminatedKeepsItsSocketAndTakesItAlong) {
    ostrel::test::TempDir dir;
    std::string socket = dir.path() + "/vsmc.sock";
    // The first line `ostrel-vsmc ARGS` prints, once it has printed one or ended.
    auto announced = [&](ostrel::test::BackgroundProcess &vsmc, const std::string &log) {
        ostrel::test::waitInDirectory(dir.path(), [&] {
            return dir.read(log).find('\n') != std::string::npos || !vsmc.running();
        });
        std::string out = dir.read(log);
        return out.substr(0, out.find('\n'));
    };
    ostrel::test::BackgroundProcess first(
        OSTREL_VSMC_BINARY, {"--profile", "macbookpro16-1", "--socket", socket, "--speed", "0"}, {},
        dir.path() + "/first.log");
    EXPECT_EQ(announced(first, "first.log"),
              "ostrel-vsmc: MacBookPro16,1 (builtin:macbookpro16-1) on " + socket + ", speed 0");
    ostrel::test::BackgroundProcess second(OSTREL_VSMC_BINARY,
                                           {"--profile", "macbookpro10-1", "--socket", socket}, {},
                                           dir.path() + "/second.log");
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(announced(second, "second.log"),
              "ostrel-vsmc: a virtual Mac is already serving " + socket);
    Client client(socket, ostrel::platform::realClock());
    EXPECT_EQ(client.transport->modelIdentifier(), "MacBookPro16,1");
    first.signal(SIGTERM);
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(::access(socket.c_str(), F_OK), -1) << "the socket goes with the server";
}

}  // namespace
