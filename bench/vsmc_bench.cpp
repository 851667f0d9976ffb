// The virtual Mac: exchanges per second through the socket transport (one client and
// four clients, each on its own connection, against one server thread), and the cost of
// a simulation step.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <asio.hpp>
#include <filesystem>
#include <thread>

#include "csmc/smc.h"
#include "csmc/vsmc_transport.h"
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

}  // namespace
