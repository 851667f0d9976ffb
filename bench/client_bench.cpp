// Speed of the helper client against a daemon that answers at once (a socket served by a
// thread of the benchmark): one version request at a time (the latency a command sees;
// goal: well under 1 ms) and 32 in flight on the one connection (throughput). And the
// reader that cuts the daemon's bytes into replies (goal: far beyond what any daemon
// sends, over 50 MB/s).

#include <benchmark/benchmark.h>

#include <vector>

#include "ostrel/helper_client.h"
#include "support/fake_daemon.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;

void BM_ClientRoundTrips(benchmark::State &state) {
    test::TempDir dir;
    std::string socket = dir.path() + "/helper.sock";
    test::FakeDaemon daemon(socket, test::FakeDaemon::Mode::answer,
                            [](const ControlProtocol::Request &) { return "1/1.1.13"; });
    platform::SerialQueue deadlines("dev.ostrel.bench.deadlines", nullptr);
    HelperClient client(socket, deadlines);
    std::vector<std::future<std::string>> inFlight(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        for (auto &request : inFlight) {
            request = client.version();
        }
        for (auto &request : inFlight) {
            benchmark::DoNotOptimize(request.get());
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ClientRoundTrips)->Arg(1)->Arg(32)->UseRealTime();

void BM_ReplyReader(benchmark::State &state) {
    std::string stream;
    while (stream.size() < (1 << 20)) {
        stream += ControlProtocol::replyLine(
            {static_cast<std::int64_t>(stream.size()),
             R"({"0":{"curve":{"_0":{"points":[{"temperature":50,"rpm":0},)"
             R"({"temperature":85,"rpm":"inf"}],"sensor":"cpu"}}}})"});
    }
    for (auto _ : state) {
        ReplyReader reader;
        for (std::size_t at = 0; at < stream.size(); at += 16384) {
            benchmark::DoNotOptimize(reader.feed(std::string_view(stream).substr(at, 16384)));
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stream.size()));
}
BENCHMARK(BM_ReplyReader);

}  // namespace
