// Exchanges per second through the applesmc transport: on the fake driver (the transport's
// own work: lock, selector protocol, search, cache) and on plain files (what the system
// calls cost; a real driver adds the SMC's own time to every attribute access).

#include <benchmark/benchmark.h>

#include "csmc/applesmc.h"
#include "support/fake_applesmc.h"
#include "support/temp_dir.h"

namespace {

using csmc::ApplesmcTransport;
using ostrel::test::FakeApplesmc;

struct FakeRig {
    ostrel::vsmc::Machine machine{ostrel::vsmc::builtinProfile("macbookpro10-1")};
    FakeApplesmc driver{machine, FakeApplesmc::Variant::mainline};
    std::unique_ptr<ostrel::platform::Sysfs> files = driver.opener();

    ApplesmcTransport transport() { return {driver.device(), "/run/bench.lock", *files}; }

    // The machine journals every exchange; keep it from growing without bound.
    void trim(benchmark::State &state) {
        if (machine.journal().size() > 100000) {
            state.PauseTiming();
            machine.clearJournal();
            state.ResumeTiming();
        }
    }
};

smc_param request(std::uint8_t command, const char *key, std::uint32_t size = 0) {
    smc_param in{};
    in.command = command;
    in.key = smc_fourcc(key);
    in.data_size = size;
    return in;
}

void BM_ApplesmcKeyInfoSearch(benchmark::State &state) {
    FakeRig rig;
    smc_param in = request(SMC_CMD_KEY_INFO, "TC0P");
    for (auto _ : state) {
        ApplesmcTransport transport = rig.transport();  // nothing known: a binary search
        smc_param out{};
        benchmark::DoNotOptimize(transport.exchange(in, out));
        rig.trim(state);
    }
}
BENCHMARK(BM_ApplesmcKeyInfoSearch);

void BM_ApplesmcKeyInfoAfterListing(benchmark::State &state) {
    FakeRig rig;
    smc_param in = request(SMC_CMD_KEY_INFO, "TC0P");
    smc_param at{};
    at.command = SMC_CMD_KEY_AT_INDEX;
    for (auto _ : state) {
        ApplesmcTransport transport = rig.transport();
        smc_param out{};
        at.index = static_cast<std::uint32_t>(rig.machine.keys().size() - 1);
        for (std::uint32_t i = 0; i < rig.machine.keys().size(); ++i) {
            if (rig.machine.keys().at(i).key == in.key) {
                at.index = i;
            }
        }
        transport.exchange(at, out);  // the index is known, the key not yet described
        out = smc_param{};
        benchmark::DoNotOptimize(transport.exchange(in, out));
        rig.trim(state);
    }
}
BENCHMARK(BM_ApplesmcKeyInfoAfterListing);

void BM_ApplesmcRead(benchmark::State &state) {
    FakeRig rig;
    ApplesmcTransport transport = rig.transport();
    smc_param in = request(SMC_CMD_READ, "TC0P", 2);
    for (auto _ : state) {
        smc_param out{};
        benchmark::DoNotOptimize(transport.exchange(in, out));
        rig.trim(state);
    }
}
BENCHMARK(BM_ApplesmcRead);

// One key in plain files: the lock plus three attribute accesses per read, all real
// system calls.
void BM_ApplesmcReadPlainFiles(benchmark::State &state) {
    // tmpfs, like sysfs: on a disk file system, rewriting a file flushes it on close.
    ostrel::test::TempDir root("/dev/shm");
    root.put("key_count", "1\n");
    root.put("key_at_index", "0\n");
    root.put("key_at_index_name", "TC0P\n");
    root.put("key_at_index_type", "sp78\n");
    root.put("key_at_index_data_length", "2\n");
    root.put("key_at_index_data", std::string("\x3f\x66", 2));
    ApplesmcTransport transport(root.path(), root.path() + "/run/bench.lock",
                                ostrel::platform::realSysfs());
    smc_param in = request(SMC_CMD_READ, "TC0P", 2);
    for (auto _ : state) {
        smc_param out{};
        benchmark::DoNotOptimize(transport.exchange(in, out));
    }
}
BENCHMARK(BM_ApplesmcReadPlainFiles);

}  // namespace

BENCHMARK_MAIN();
