// The running daemon, measured from outside: ostrel-helper and a virtual Mac as real
// processes in a sandbox (tests/support/daemon_rig.h), this benchmark as its client.
//
//   BM_Memory        resident set (VmRSS) idle and with a policy on every fan, in KiB
//   BM_IdleWakeups   voluntary context switches of all the daemon's threads per second
//                    over 10 s without policies (the 2 s control timer is all that should
//                    wake it)
//   BM_KillsDuringSaves  1,000 SIGKILLs during saves: the policies file stays whole
//   BM_RoundTrip     request-to-reply latency over the socket, p50 and p99 in µs, for
//                    version and setPolicy with 1 and 100 clients sending at once
//
// Run: build/bench/daemon_bench (signed as the command-line program, so the daemon serves
// it). The numbers are reported as counters; the benchmark's own time is not the figure.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "ostrel/control_protocol.h"
#include "support/daemon_kills.h"
#include "support/daemon_rig.h"
#include "support/line_client.h"

namespace {

using namespace ostrel;
using Clock = std::chrono::steady_clock;

// A value from /proc/PID/status ("VmRSS", "voluntary_ctxt_switches"), or 0.
long statusValue(const std::string &path, const std::string &name) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(name + ":")) {
            return std::stol(line.substr(name.size() + 1));
        }
    }
    return 0;
}

long voluntarySwitches(pid_t pid) {
    long total = 0;
    std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        total += statusValue(task.path().string() + "/status", "voluntary_ctxt_switches");
    }
    return total;
}

// Round-trip time of `line` on `client`, or a negative time when the daemon closed it.
std::chrono::nanoseconds roundTrip(test::LineClient &client, const std::string &line) {
    auto start = Clock::now();
    if (!client.send(line) || !client.reply()) {
        return std::chrono::nanoseconds(-1);
    }
    return Clock::now() - start;
}

test::DaemonRig &rig() {
    static test::DaemonRig *rig = [] {
        auto *made = new test::DaemonRig("macbookpro16-1");
        made->start();
        return made;
    }();
    return *rig;
}

std::string setPolicyLine(int fan, double rpm) {
    return ControlProtocol::requestLine(
        {1, ControlProtocol::Call::setPolicy, fan,
         "{\"fixed\":{\"rpm\":" + std::to_string(static_cast<int>(rpm)) + "}}"});
}

void BM_Memory(benchmark::State &state) {
    std::string status = "/proc/" + std::to_string(rig().helper().pid()) + "/status";
    test::LineClient client(rig().socket());
    for (auto _ : state) {
        state.counters["rss_idle_kib"] = static_cast<double>(statusValue(status, "VmRSS"));
        roundTrip(client, setPolicyLine(0, 2500));
        roundTrip(
            client,
            ControlProtocol::requestLine(
                {1, ControlProtocol::Call::setPolicy, 1,
                 R"({"curve":{"_0":{"points":[{"temperature":40,"rpm":0},{"temperature":80,"rpm":"inf"}],"sensor":"cpu"}}})"}));
        for (int i = 0; i < 20; ++i) {  // twenty ticks' worth of sampling and writing
            roundTrip(client, setPolicyLine(0, 2500 + i * 100));
        }
        state.counters["rss_active_kib"] = static_cast<double>(statusValue(status, "VmRSS"));
        roundTrip(client, ControlProtocol::requestLine(
                              {1, ControlProtocol::Call::setPolicy, -1, R"({"auto":{}})"}));
    }
}
BENCHMARK(BM_Memory)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_IdleWakeups(benchmark::State &state) {
    pid_t pid = rig().helper().pid();
    const auto interval = std::chrono::seconds(10);
    for (auto _ : state) {
        long before = voluntarySwitches(pid);
        std::this_thread::sleep_for(interval);  // a benchmark may wait; the daemon is idle
        long after = voluntarySwitches(pid);
        state.counters["wakeups_per_s"] =
            static_cast<double>(after - before) / static_cast<double>(interval.count());
    }
}
BENCHMARK(BM_IdleWakeups)->Iterations(1)->Unit(benchmark::kSecond);

// state.range(0): 0 version, 1 setPolicy; state.range(1): clients sending at once.
void BM_RoundTrip(benchmark::State &state) {
    const bool setPolicy = state.range(0) == 1;
    const auto clients = static_cast<std::size_t>(state.range(1));
    const int perClient = clients == 1 ? 2000 : 50;
    const std::string version =
        ControlProtocol::requestLine({1, ControlProtocol::Call::version, 0, ""});
    for (auto _ : state) {
        std::vector<std::vector<double>> latencies(clients);
        std::vector<std::thread> threads;
        std::atomic<int> refused{0};
        for (std::size_t c = 0; c < clients; ++c) {
            threads.emplace_back([&, c] {
                test::LineClient client(rig().socket());
                for (int i = 0; i < perClient; ++i) {
                    auto t = roundTrip(client,
                                       setPolicy ? setPolicyLine(0, 2000 + i % 2 * 100) : version);
                    if (t.count() < 0) {
                        ++refused;
                        return;
                    }
                    latencies[c].push_back(static_cast<double>(t.count()) / 1000.0);
                }
            });
        }
        for (std::thread &t : threads) {
            t.join();
        }
        std::vector<double> all;
        for (const auto &l : latencies) {
            all.insert(all.end(), l.begin(), l.end());
        }
        std::sort(all.begin(), all.end());
        auto at = [&](double q) {
            return all.empty() ? 0.0 : all[static_cast<std::size_t>(q * (all.size() - 1))];
        };
        state.counters["p50_us"] = at(0.50);
        state.counters["p99_us"] = at(0.99);
        state.counters["requests"] = static_cast<double>(all.size());
        state.counters["closed"] = refused.load();
    }
}
BENCHMARK(BM_RoundTrip)
    ->ArgNames({"setPolicy", "clients"})
    ->Args({0, 1})
    ->Args({0, 100})
    ->Args({1, 1})
    ->Args({1, 100})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// A thousand SIGKILLs while the daemon saves policy changes (tests/support/daemon_kills.h);
// its own rig, since the daemon is killed and restarted each time.
void BM_KillsDuringSaves(benchmark::State &state) {
    for (auto _ : state) {
        test::DaemonRig killed("macbookpro16-1");
        std::vector<std::string> problems = test::killDuringSaves(killed, 1000, 20261123);
        state.counters["kills"] = 1000;
        state.counters["torn_or_stale"] = static_cast<double>(problems.size());
        for (const std::string &problem : problems) {
            state.SkipWithError(problem.c_str());
        }
    }
}
BENCHMARK(BM_KillsDuringSaves)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
