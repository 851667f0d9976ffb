// The running daemon, measured from outside: ostrel-helper and a virtual Mac as real
// processes in a sandbox (tests/support/daemon_rig.h), this benchmark as its client.
//
//   BM_Memory        resident set (VmRSS) idle and with a policy on every fan of the
//                    four-fan machine, in KiB
//   BM_IdleWakeups   voluntary context switches of all the daemon's threads per second
//                    over 60 s without policies (the 2 s control timer is all that should
//                    wake it)
//   BM_StartUp       from starting the daemon to its first answer, discovery included, on
//                    each built-in machine
//   BM_SocketAbuse   10,000 malformed frames, 1,000 silent connections, 100 clients that
//                    never read and unsigned peers (tests/support/daemon_abuse.h), while a
//                    signed client's round trips and the gaps between control ticks (seen
//                    as the virtual Mac's exchange count moving) are measured
//   BM_KillsDuringSaves  1,000 SIGKILLs during saves: the policies file stays whole
//   BM_RoundTrip     request-to-reply latency over the socket, p50 and p99 in µs, for
//                    version and setPolicy with 1 and 100 clients sending at once
//
// Run: build/bench/daemon_bench (signed as the command-line program, so the daemon serves
// it). The numbers are reported as counters; the benchmark's own time is not the figure.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "ostrel/control_protocol.h"
#include "support/daemon_abuse.h"
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

// Shared by the benchmarks that need a daemon left running; destroyed at exit, which kills
// its processes (a leaked rig left a daemon and a virtual Mac behind every run).
test::DaemonRig &rig() {
    static test::DaemonRig rig("macbookpro16-1");
    static bool started = (rig.start(), true);
    (void)started;
    return rig;
}

// The request that holds `fan` (-1: every fan) at `rpm`.
std::string fixedLine(int fan, double rpm) {
    return test::setPolicyLine(
        1, fan, "{\"fixed\":{\"rpm\":" + std::to_string(static_cast<int>(rpm)) + "}}");
}

// On the four-fan machine: idle, then with a policy on every fan after twenty ticks' worth of
// sampling and writing.
void BM_Memory(benchmark::State &state) {
    test::DaemonRig rig("macpro7-1");
    rig.start();
    std::string status = "/proc/" + std::to_string(rig.helper().pid()) + "/status";
    test::LineClient client(rig.socket());
    for (auto _ : state) {
        state.counters["rss_idle_kib"] = static_cast<double>(statusValue(status, "VmRSS"));
        // Most of the resident set is shared libraries' pages; the daemon's own is this.
        state.counters["anon_idle_kib"] = static_cast<double>(statusValue(status, "RssAnon"));
        roundTrip(
            client,
            test::setPolicyLine(
                1, -1,
                R"({"curve":{"_0":{"points":[{"temperature":40,"rpm":0},{"temperature":80,"rpm":"inf"}],"sensor":"cpu"}}})"));
        for (int i = 0; i < 20; ++i) {
            roundTrip(client, fixedLine(0, 2500 + i * 100));
        }
        state.counters["rss_active_kib"] = static_cast<double>(statusValue(status, "VmRSS"));
        state.counters["anon_active_kib"] = static_cast<double>(statusValue(status, "RssAnon"));
    }
}
BENCHMARK(BM_Memory)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_IdleWakeups(benchmark::State &state) {
    pid_t pid = rig().helper().pid();
    const auto interval = std::chrono::seconds(60);
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
    const std::string version = test::requestLine(1, ControlProtocol::Call::version);
    for (auto _ : state) {
        std::vector<std::vector<double>> latencies(clients);
        std::vector<std::thread> threads;
        std::atomic<int> refused{0};
        for (std::size_t c = 0; c < clients; ++c) {
            threads.emplace_back([&, c] {
                test::LineClient client(rig().socket());
                for (int i = 0; i < perClient; ++i) {
                    auto t =
                        roundTrip(client, setPolicy ? fixedLine(0, 2000 + i % 2 * 100) : version);
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

void BM_StartUp(benchmark::State &state, const char *profile) {
    for (auto _ : state) {
        test::DaemonRig rig(profile);
        auto start = Clock::now();
        rig.start();
        state.counters["ready_ms"] =
            std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }
}
BENCHMARK_CAPTURE(BM_StartUp, macbookpro10_1, "macbookpro10-1")->Iterations(1);
BENCHMARK_CAPTURE(BM_StartUp, macbookpro16_1, "macbookpro16-1")->Iterations(1);
BENCHMARK_CAPTURE(BM_StartUp, macbookpro18_2, "macbookpro18-2")->Iterations(1);
BENCHMARK_CAPTURE(BM_StartUp, macpro7_1, "macpro7-1")->Iterations(1);

// The virtual Mac's exchange count, through `ostrel-vsmc ctl status --json`.
double exchangesServed(test::DaemonRig &rig) {
    return rig.status()["exchanges"]["total"].get<double>();
}

void BM_SocketAbuse(benchmark::State &state) {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;  // 1,000 connections held here
    ::setrlimit(RLIMIT_NOFILE, &files);
    for (auto _ : state) {
        test::DaemonRig rig("macbookpro16-1");
        rig.start();
        test::LineClient setter(rig.socket());
        roundTrip(setter, fixedLine(-1, 2500));
        std::string policies = test::fileBytes(rig.policiesPath());
        Json fans = rig.status()["fans"];

        std::atomic<bool> done{false};
        std::vector<double> latencies;
        double worstGap = 0;
        std::thread client([&] {
            test::LineClient good(rig.socket());
            const std::string version = test::requestLine(1, ControlProtocol::Call::version);
            while (!done) {
                auto t = roundTrip(good, version);
                if (t.count() < 0) {
                    good = test::LineClient(rig.socket());
                    continue;
                }
                latencies.push_back(static_cast<double>(t.count()) / 1000.0);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
        std::thread ticks([&] {
            double last = exchangesServed(rig);
            auto lastChange = Clock::now();
            while (!done) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                double now = exchangesServed(rig);
                if (now != last) {
                    auto at = Clock::now();
                    worstGap =
                        std::max(worstGap, std::chrono::duration<double>(at - lastChange).count());
                    last = now;
                    lastChange = at;
                }
            }
        });
        test::SocketAbuse abuse(rig.socket(), rig.helper().pid(), 20261123);
        abuse.holdIdle(1000);
        abuse.deafClients(100, 2000);
        abuse.malformed(10000);
        for (int i = 0; i < 20; ++i) {
            rig.ostrel({"set", "0", "1000"}, false);
        }
        std::this_thread::sleep_for(std::chrono::seconds(5));  // ticks after the storm
        abuse.sample();
        done = true;
        client.join();
        ticks.join();

        std::sort(latencies.begin(), latencies.end());
        auto at = [&](double q) {
            return latencies.empty()
                       ? 0.0
                       : latencies[static_cast<std::size_t>(q * (latencies.size() - 1))];
        };
        Json fansAfter = rig.status()["fans"];
        bool unchanged = test::fileBytes(rig.policiesPath()) == policies;
        for (std::size_t i = 0; i < fans.size(); ++i) {
            unchanged = unchanged && fans[i]["mode"] == fansAfter[i]["mode"] &&
                        fans[i]["written"] == fansAfter[i]["written"];
        }
        state.counters["frames"] = static_cast<double>(abuse.frames);
        state.counters["peak_rss_kib"] = static_cast<double>(abuse.peakRssKib);
        state.counters["peak_fds"] = static_cast<double>(abuse.peakFds);
        state.counters["signed_p50_us"] = at(0.50);
        state.counters["signed_p99_us"] = at(0.99);
        state.counters["signed_requests"] = static_cast<double>(latencies.size());
        state.counters["worst_tick_gap_s"] = worstGap;
        state.counters["alive"] = rig.helper().running();
        state.counters["unchanged"] = unchanged;
    }
}
BENCHMARK(BM_SocketAbuse)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// A thousand SIGKILLs while the daemon saves policy changes (tests/support/daemon_abuse.h);
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
