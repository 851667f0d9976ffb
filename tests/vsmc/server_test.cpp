// The ostrel-vsmc process and the channel's vsmc transport: a real server on a temporary
// socket, several clients, privilege, faults, garbage, a dead server, and `ctl`.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>

#include "app.h"
#include "csmc/smc.h"
#include "csmc/vsmc_transport.h"
#include "ostrel/json.h"
#include "ostrel/platform/environment.h"
#include "support/test_machine.h"

extern char **environ;

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
namespace fs = std::filesystem;

using ostrel::test::writeNumber;

// A connection on the vsmc transport; closed with the object.
class Client {
  public:
    explicit Client(const std::string &socket) {
        csmc::OpenedTransport opened = csmc::openTransport("vsmc:" + socket);
        status_ = opened.status;
        detail_ = opened.detail;
        if (opened.status == SMC_OK) {
            transport_ = static_cast<csmc::VsmcTransport *>(opened.transport.get());
            csmc::openConnection(&conn_, std::move(opened.transport));
        }
    }
    ~Client() { smc_close(conn_); }
    smc_conn *get() const { return conn_; }
    csmc::VsmcTransport &transport() const { return *transport_; }
    std::int32_t status() const { return status_; }
    const std::string &detail() const { return detail_; }

    double read(const char *key) {
        double value = std::nan("");
        EXPECT_EQ(smc_read_double(conn_, smc_fourcc(key), &value), SMC_OK) << key;
        return value;
    }
    nlohmann::json call(const nlohmann::json &request) {
        auto reply = transport_->call(request);
        EXPECT_TRUE(reply.has_value());
        return reply.value_or(nlohmann::json());
    }

  private:
    smc_conn *conn_ = nullptr;
    csmc::VsmcTransport *transport_ = nullptr;
    std::int32_t status_ = SMC_OK;
    std::string detail_;
};

// Polls until `done` holds or the deadline passes; never a fixed wait.
template <typename Predicate>
bool eventually(Predicate done, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

bool connects(const std::string &path) {
    return csmc::VsmcTransport::open(path).status == SMC_OK;
}

// A running ostrel-vsmc process on a socket in a temporary directory.
class ServerProcess {
  public:
    explicit ServerProcess(std::vector<std::string> extra = {},
                           std::string profile = "macbookpro18-2")
        : dir_(fs::temp_directory_path() /
               ("vsmc-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++))) {
        fs::create_directories(dir_);
        socket_ = (dir_ / "vsmc.sock").string();
        std::vector<std::string> args = {OSTREL_VSMC_BINARY, "--profile", profile, "--socket",
                                         socket_};
        args.insert(args.end(), extra.begin(), extra.end());
        pid_ = spawn(args, (dir_ / "out.txt").string());
        EXPECT_TRUE(eventually([&] { return connects(socket_); })) << "server did not come up";
    }
    ~ServerProcess() {
        stop();
        fs::remove_all(dir_);
    }

    static pid_t spawn(const std::vector<std::string> &args, const std::string &output) {
        std::vector<char *> argv;
        for (const std::string &a : args) {
            argv.push_back(const_cast<char *>(a.c_str()));
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    // Stops the server with SIGTERM; its exit status.
    int stop() {
        if (pid_ <= 0) {
            return exit_;
        }
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return exit_;
    }

    const std::string &socket() const { return socket_; }
    fs::path dir() const { return dir_; }

  private:
    static inline int counter_ = 0;
    fs::path dir_;
    std::string socket_;
    pid_t pid_ = -1;
    int exit_ = -1;
};

// Runs `ostrel-vsmc ARGS` in-process; exit status, with standard output and error.
struct Ran {
    int status;
    std::string out;
    std::string err;
};
Ran ctl(const std::string &socket, std::vector<std::string> args) {
    args.insert(args.begin(), {"ostrel-vsmc", "ctl", "--socket", socket});
    std::vector<const char *> argv;
    for (const std::string &a : args) {
        argv.push_back(a.c_str());
    }
    std::ostringstream out;
    std::ostringstream err;
    ostrel::vsmc::app::Context context = ostrel::vsmc::app::defaultContext();
    context.out = &out;
    context.err = &err;
    int status = ostrel::vsmc::app::run(static_cast<int>(argv.size()), argv.data(), context);
    return {status, out.str(), err.str()};
}

TEST(VsmcServer, AnswersTheChannelAndTheJsonCallsOnOneSocket) {
    ServerProcess server({"--speed", "0"});
    Client client(server.socket());
    ASSERT_EQ(client.status(), SMC_OK);
    std::uint32_t count = 0;
    ASSERT_EQ(smc_key_count(client.get(), &count), SMC_OK);
    EXPECT_GT(count, 200u);
    std::uint32_t first = 0;
    ASSERT_EQ(smc_key_at_index(client.get(), 0, &first), SMC_OK);
    EXPECT_EQ(first, smc_fourcc("#KEY"));
    EXPECT_EQ(client.read("F0Mx"), 5348);
    EXPECT_EQ(writeNumber(client.get(), "Ftst", 1), SMC_OK) << "tests run as root";
    EXPECT_EQ(client.read("Ftst"), 1);
    double ignored = 0;
    EXPECT_EQ(smc_read_double(client.get(), smc_fourcc("NOPE"), &ignored), SMC_ENOKEY);

    EXPECT_EQ(client.transport().modelIdentifier(), "MacBookPro18,2");
    auto sensors = client.transport().temperatureSensors();
    ASSERT_TRUE(sensors && !sensors->empty());
    EXPECT_EQ(sensors->front().name, "pACC MTR Temp Sensor0");
    auto battery = client.transport().batteryProperties();
    ASSERT_TRUE(battery && battery->is_object());
    EXPECT_EQ((*battery)["MaxCapacity"], 100);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_FALSE(fs::exists(server.socket())) << "the socket goes with the server";
}

TEST(VsmcServer, SeveralClientsSeeOneMachine) {
    ServerProcess server({"--speed", "0"}, "macbookpro16-1");
    Client a(server.socket());
    Client b(server.socket());
    ASSERT_EQ(writeNumber(a.get(), "F1Md", 1), SMC_OK);
    ASSERT_EQ(writeNumber(a.get(), "F1Tg", 3000), SMC_OK);
    EXPECT_EQ(b.read("F1Md"), 1);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                double value = 0;
                if (smc_read_double(b.get(), smc_fourcc("F1Tg"), &value) != SMC_OK ||
                    value != 3000) {
                    ++failures;
                }
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0) << "one connection shared by threads";
    b.call({{"call", "advance"}, {"seconds", 30}});
    EXPECT_NEAR(a.read("F1Ac"), 3000, 20);
    auto status = a.call({{"call", "status"}});
    EXPECT_EQ(status["status"]["writes"]["count"], 2);
}

TEST(VsmcServer, RefusesWritesFromAPeerThatIsNotRoot) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "needs root to drop to another user";
    }
    ServerProcess server({"--speed", "0"});
    pid_t child = ::fork();
    if (child == 0) {
        // The child reports through its exit status: 0 when everything held.
        if (::setgid(65534) != 0 || ::setuid(65534) != 0) {
            ::_exit(10);
        }
        Client client(server.socket());
        double value = 0;
        int code = client.status() != SMC_OK                                             ? 11
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
    Client root(server.socket());
    auto writes = root.call({{"call", "status"}})["status"]["writes"]["recent"];
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0]["privileged"], false);
    EXPECT_EQ(writes[0]["kern"], SMC_KERN_NOT_PRIVILEGED);
}

TEST(VsmcServer, InjectedFaultsReachTheChannel) {
    ServerProcess server({"--speed", "0"}, "macbookpro10-1");
    Client client(server.socket());
    client.read("F0Mx");
    EXPECT_EQ(client.call({{"call", "fault"},
                           {"key", "F0Mx"},
                           {"command", "read"},
                           {"kern", SMC_KERN_IO_ERROR}})["ok"],
              true);
    double value = 0;
    EXPECT_EQ(smc_read_double(client.get(), smc_fourcc("F0Mx"), &value),
              static_cast<std::int32_t>(SMC_KERN_IO_ERROR));
    EXPECT_EQ(smc_read_double(client.get(), smc_fourcc("F0Mx"), &value), SMC_OK);

    ASSERT_EQ(ctl(server.socket(), {"refuse", "FS!", "--times", "2"}).status, 0);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_EFIRMWARE);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_EFIRMWARE);
    EXPECT_EQ(writeNumber(client.get(), "FS! ", 1), SMC_OK);

    client.read("TC0P");  // its information is now cached
    ASSERT_EQ(ctl(server.socket(), {"vanish", "TC0P"}).status, 0);
    EXPECT_EQ(smc_read_double(client.get(), smc_fourcc("TC0P"), &value), SMC_ENOKEY);
    ASSERT_EQ(ctl(server.socket(), {"restore", "TC0P"}).status, 0);
    EXPECT_EQ(smc_read_double(client.get(), smc_fourcc("TC0P"), &value), SMC_OK);
}

// A Unix stream socket connected to `path` (or, with `bound`, bound to it).
int rawSocket(const std::string &path, bool bound = false) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    auto *raw = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(bound ? ::bind(fd, raw, sizeof address) : ::connect(fd, raw, sizeof address), 0);
    return fd;
}

bool closedByPeer(int fd) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 10000) != 1) {
        return false;
    }
    // Closed with our bytes unread, the peer's kernel resets the connection.
    char byte = 0;
    return ::recv(fd, &byte, 1, 0) <= 0;
}

TEST(VsmcServer, GarbageAndOversizedFramesCloseOnlyTheirConnection) {
    ServerProcess server({"--speed", "0"});
    Client bystander(server.socket());
    const std::vector<std::string> frames = {
        "hello, is this the SMC?\n",
        std::string("VM\x02\x00\xff\xff\xff\x7f", 8),                       // a call of 2 GiB
        std::string("VM\x01\x00\x10\x00\x00\x00", 8) + "0123456789abcdef",  // short record
        std::string("VM\x02\x00\x05\x00\x00\x00", 8) + "[1,2]",             // not an object
        std::string("VM\x81\x00\x54\x00\x00\x00", 8),                       // a reply kind
    };
    for (const std::string &frame : frames) {
        int fd = rawSocket(server.socket());
        ASSERT_EQ(::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(frame.size()));
        EXPECT_TRUE(closedByPeer(fd)) << testing::PrintToString(frame);
        ::close(fd);
    }
    EXPECT_EQ(bystander.read("F0Mx"), 5348);
    EXPECT_EQ(bystander.call({{"call", "warp"}})["error"], "unknown call 'warp'");
}

TEST(VsmcTransport, ADeadOrSilentServerGivesAKernelCodeAndNoHang) {
    auto server = std::make_unique<ServerProcess>(std::vector<std::string>{"--speed", "0"});
    Client client(server->socket());
    EXPECT_EQ(client.read("F0Mx"), 5348);
    server->stop();
    double value = 0;
    EXPECT_EQ(smc_read_double(client.get(), smc_fourcc("F0Mx"), &value),
              static_cast<std::int32_t>(SMC_KERN_NOT_RESPONDING));
    EXPECT_THAT(smc_error_detail(), HasSubstr("the virtual Mac at " + server->socket() + ": "));

    // Something that accepts connections but never answers, as a stopped (Ctrl-Z) server
    // does: opening says so instead of every request waiting out the timeout.
    std::string path = (server->dir() / "silent.sock").string();
    int listener = rawSocket(path, true);
    ASSERT_EQ(::listen(listener, 4), 0);
    csmc::OpenedTransport silent = csmc::VsmcTransport::open(path, 50ms);
    EXPECT_EQ(silent.status, SMC_ENOSERVICE);
    EXPECT_THAT(silent.detail,
                HasSubstr("accepted the connection but did not answer within 50 ms"));
    ::close(listener);
}

TEST(VsmcTransport, NoServerAtOpenIsNoServiceWithTheReason) {
    csmc::OpenedTransport none = csmc::openTransport("vsmc:/nonexistent/vsmc.sock");
    EXPECT_EQ(none.status, SMC_ENOSERVICE);
    EXPECT_EQ(none.detail,
              "no virtual Mac answers at /nonexistent/vsmc.sock (no such socket); start one "
              "with: ostrel-vsmc --profile NAME --socket /nonexistent/vsmc.sock");
    EXPECT_EQ(csmc::openTransport("vsmc:").status, SMC_ENOSERVICE);
}

TEST(VsmcServer, ItsClockRunsAtTheGivenSpeed) {
    ServerProcess server({"--speed", "200"}, "macbookpro10-1");
    Client client(server.socket());
    auto simulated = [&] { return client.call({{"call", "status"}})["status"]["time"]; };
    EXPECT_TRUE(eventually([&] { return simulated().get<double>() > 20; }));
    ASSERT_EQ(ctl(server.socket(), {"speed", "0"}).status, 0);
    double paused = simulated();
    client.call({{"call", "advance"}, {"seconds", 10}});
    EXPECT_NEAR(simulated().get<double>(), paused + 10, 0.11);
}

TEST(VsmcServer, KeepsItsSocketFromASecondServerAndReplacesAStaleOne) {
    ServerProcess server({"--speed", "0"});
    std::string output = (server.dir() / "second.txt").string();
    pid_t second = ServerProcess::spawn(
        {OSTREL_VSMC_BINARY, "--profile", "macbookpro10-1", "--socket", server.socket()}, output);
    int status = 0;
    ::waitpid(second, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_TRUE(connects(server.socket()));

    // A socket file left behind by a server that died.
    std::string stale = (server.dir() / "stale.sock").string();
    ::close(rawSocket(stale, true));
    pid_t third = ServerProcess::spawn(
        {OSTREL_VSMC_BINARY, "--profile", "macbookpro10-1", "--socket", stale}, output);
    EXPECT_TRUE(eventually([&] { return connects(stale); }));
    ::kill(third, SIGTERM);
    ::waitpid(third, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(VsmcCtl, StatusJsonListsTheDocumentedMembersInOrder) {
    ServerProcess server({"--speed", "0"}, "macpro7-1");
    ASSERT_EQ(ctl(server.socket(), {"load", "--cpu", "1", "--gpu", "0.5"}).status, 0);
    ASSERT_EQ(ctl(server.socket(), {"advance", "60"}).status, 0);
    Ran ran = ctl(server.socket(), {"status", "--json"});
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
    EXPECT_EQ(status["model"], "MacPro7,1");
    EXPECT_EQ(status["time"], 60.0);
    EXPECT_EQ(status["fans"].size(), 4u);
    EXPECT_TRUE(status["battery"].is_null());
    EXPECT_EQ(status["temperatures"]["battery"], nullptr);
    EXPECT_GT(status["temperatures"]["cpu"].get<double>(), 45);

    Ran human = ctl(server.socket(), {"status"});
    EXPECT_THAT(human.out, HasSubstr("MacPro7,1  t=60.0 s"));
    EXPECT_THAT(human.out, HasSubstr("fan 3"));
}

TEST(VsmcCtl, BadArgumentsAreUsageErrorsAndRefusedCallsFailures) {
    ServerProcess server({"--speed", "0"});
    EXPECT_EQ(ctl(server.socket(), {"load", "--cpu", "2"}).status, 2);
    EXPECT_EQ(ctl(server.socket(), {"fail", "--result", "0x100"}).status, 2);
    Ran vanish = ctl(server.socket(), {"vanish", "NOPE"});
    EXPECT_EQ(vanish.status, 1);
    EXPECT_THAT(vanish.err, HasSubstr("no such key"));
    Ran limits = ctl(server.socket(), {"limits", "5", "1", "2"});
    EXPECT_EQ(limits.status, 1);
    EXPECT_THAT(limits.err, HasSubstr("no fan 5 (the machine has 2)"));
    Ran missing = ctl((server.dir() / "none.sock").string(), {"status"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("no virtual Mac answers at"));

    std::string file = (server.dir() / "bad.scenario").string();
    FILE *f = std::fopen(file.c_str(), "w");
    std::fputs("at 0 cpu 7\n", f);
    std::fclose(f);
    Ran scenario = ctl(server.socket(), {"scenario", file});
    EXPECT_EQ(scenario.status, 1);
    EXPECT_THAT(scenario.err, HasSubstr("bad.scenario:1: cpu load '7'"));
}

}  // namespace
