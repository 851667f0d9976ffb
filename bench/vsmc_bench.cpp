// The virtual Mac: exchanges per second through the socket transport (one client and
// four clients, each on its own connection, against one server thread), the cost of a
// simulation step, and the memory that abuse can make it hold: clients that announce
// large frames and send nothing, and millions of in-process reads (the journal).

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio.hpp>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "csmc/smc.h"
#include "csmc/vsmc_transport.h"
#include "ostrel/vsmc/memory_transport.h"
#include "ostrel/vsmc/server.h"
#include "ostrel/vsmc/virtual_mac.h"

namespace {

// One server for the whole run, on its own thread, paused so that only exchanges cost.
class BenchServer {
  public:
    BenchServer()
        : path_((std::filesystem::temp_directory_path() /
                 ("ostrel-bench-" + std::to_string(::getpid()) + ".sock"))
                    .string()),
          mac_(ostrel::vsmc::builtinProfile("macbookpro16-1"), 0, 0),
          server_(io_, mac_, path_, ostrel::platform::realFiles(), ostrel::platform::realClock()),
          thread_([this] { io_.run(); }) {}
    ~BenchServer() {
        asio::post(io_, [this] { server_.stop(); });
        thread_.join();
    }
    const std::string &path() const { return path_; }

    // Runs `fn` on the server's thread and returns its result.
    template <class F>
    auto onServer(F fn) -> decltype(fn(std::declval<ostrel::vsmc::Server &>())) {
        std::promise<decltype(fn(server_))> done;
        asio::post(io_, [&] { done.set_value(fn(server_)); });
        return done.get_future().get();
    }

  private:
    std::string path_;
    asio::io_context io_;
    ostrel::vsmc::VirtualMac mac_;
    ostrel::vsmc::Server server_;
    std::thread thread_;
};

BenchServer &server() {
    static BenchServer instance;
    return instance;
}

void BM_SocketRead(benchmark::State &state) {
    csmc::OpenedTransport opened =
        csmc::VsmcTransport::open(server().path(), ostrel::platform::realClock());
    smc_conn *conn = nullptr;
    csmc::openConnection(&conn, std::move(opened.transport));
    std::uint32_t key = smc_fourcc("TC0P");
    double value = 0;
    smc_read_double(conn, key, &value);  // key information cached: one exchange per read
    for (auto _ : state) {
        if (smc_read_double(conn, key, &value) != SMC_OK) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(value);
    }
    state.SetItemsProcessed(state.iterations());
    smc_close(conn);
}
BENCHMARK(BM_SocketRead)->Threads(1)->Threads(4)->UseRealTime();

void BM_SimulationStep(benchmark::State &state) {
    static const char *const kProfiles[] = {"macbookpro10-1", "macbookpro16-1", "macbookpro18-2",
                                            "macpro7-1"};
    const char *name = kProfiles[state.range(0)];
    ostrel::vsmc::Machine machine(ostrel::vsmc::builtinProfile(name));
    machine.setLoad(1, 1);
    for (auto _ : state) {
        machine.advance(ostrel::vsmc::Simulation::kStep);  // one step and every key written
    }
    state.SetLabel(name);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SimulationStep)->DenseRange(0, 3);

void BM_SimulatedMinute(benchmark::State &state) {
    ostrel::vsmc::Machine machine(ostrel::vsmc::builtinProfile("macbookpro10-1"));
    machine.setLoad(1, 1);
    for (auto _ : state) {
        machine.advance(60);  // 600 steps, keys written once
    }
}
BENCHMARK(BM_SimulatedMinute);

// The process's resident memory in KiB.
double residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == "VmRSS:") {
            double kib = 0;
            status >> kib;
            return kib;
        }
    }
    return 0;
}

// 200 clients each announce a 1 MiB call and send none of it: what the server holds for
// them (its own count, and the process's resident memory, which also holds the clients'
// socket ends), and how many it keeps.
void BM_ClaimedFrames(benchmark::State &state) {
    const std::string claim("VM\x02\x00\x00\x00\x10\x00", 8);
    double held = 0;
    double kept = 0;
    double grown = 0;
    for (auto _ : state) {
        double before = residentKiB();
        std::vector<int> clients;
        for (int i = 0; i < 200; ++i) {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            server().path().copy(address.sun_path, sizeof address.sun_path - 1);
            int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) {
                ::send(fd, claim.data(), claim.size(), MSG_NOSIGNAL);
            }
            clients.push_back(fd);
        }
        // Accepting and reading happen on the server's thread; wait until it has taken in
        // what it will keep.
        std::pair<std::size_t, std::size_t> seen;
        for (int spins = 0; spins < 1000000; ++spins) {
            seen = server().onServer([](ostrel::vsmc::Server &s) {
                return std::pair(s.listener().connections(), s.listener().bufferedBytes());
            });
            if (seen.second >= seen.first * claim.size() && seen.first > 0) {
                break;
            }
        }
        grown = residentKiB() - before;
        kept = static_cast<double>(seen.first);
        held = static_cast<double>(seen.second);
        for (int fd : clients) {
            ::close(fd);
        }
        server().onServer([](ostrel::vsmc::Server &s) { return s.listener().connections(); });
    }
    state.counters["held_bytes"] = held;
    state.counters["kept_clients"] = kept;
    state.counters["rss_growth_KiB"] = grown;
}
BENCHMARK(BM_ClaimedFrames)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

// Three million reads on one in-process machine: the journal it keeps for tests.
void BM_MemoryReadsJournal(benchmark::State &state) {
    ostrel::vsmc::Machine machine(ostrel::vsmc::builtinProfile("macbookpro10-1"));
    smc_conn *conn = nullptr;
    csmc::openConnection(&conn, std::make_unique<ostrel::vsmc::MemoryTransport>(machine));
    std::uint32_t key = smc_fourcc("TC0P");
    double value = 0;
    for (auto _ : state) {
        for (int i = 0; i < 3'000'000; ++i) {
            smc_read_double(conn, key, &value);
        }
    }
    std::size_t bytes = machine.journal().capacity() * sizeof(ostrel::vsmc::ExchangeRecord);
    for (const auto &record : machine.journal()) {
        bytes += record.bytes.capacity();
    }
    state.counters["journal_records"] = static_cast<double>(machine.journal().size());
    state.counters["journal_KiB"] = static_cast<double>(bytes) / 1024;
    smc_close(conn);
}
BENCHMARK(BM_MemoryReadsJournal)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
