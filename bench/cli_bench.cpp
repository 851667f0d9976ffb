// Cost of one `ostrel watch` frame as the command draws it, in-process on the built-in
// MacBookPro16,1 with its discovery cached and a daemon that answers the policies at once:
// sampling, the policies round trip, the log's tail and the text. The view redraws every
// 2 s by default; goal: a frame under 5 ms of CPU, so watching costs well under 1 % of a
// core.

#include <benchmark/benchmark.h>

#include <sstream>

#include "cli.h"
#include "ostrel/vsmc/memory_transport.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel;

void BM_WatchFrame(benchmark::State &state) {
    test::Sandbox sandbox;
    test::FakeDaemon daemon(
        sandbox.root.path() + "/helper.sock", test::FakeDaemon::Mode::answer,
        [](const ControlProtocol::Request &) { return R"({"0":{"fixed":{"rpm":2500}}})"; });
    platform::SerialQueue deadlines("dev.ostrel.bench.deadlines", nullptr);
    HelperClient client(sandbox.root.path() + "/helper.sock", deadlines);
    vsmc::Machine machine = test::builtinMachine("macbookpro16-1");
    std::ostringstream out, err;
    cli::Context context{
        &out,
        &err,
        [&] { return std::make_shared<SMC>(std::make_unique<vsmc::MemoryTransport>(machine)); },
        sandbox.system,
        [&]() -> HelperClient & { return client; },
        nullptr,
        [] { return std::unique_ptr<cli::Pause>(); },  // one frame never waits
        false};
    const char *args[] = {"ostrel", "watch", "--count", "1"};
    for (auto _ : state) {
        out.str("");
        if (cli::run(4, args, context) != 0) {
            state.SkipWithError(err.str().c_str());
            break;
        }
    }
}
BENCHMARK(BM_WatchFrame)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
