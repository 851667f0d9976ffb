// Speed of the channel's hot paths: the codec, a cached key-information lookup, and a read
// through the in-process transport.

#include <benchmark/benchmark.h>

#include "csmc/smc.h"
#include "csmc/transport.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/memory_transport.h"

namespace {

struct TypeCase {
    const char *type;
    std::uint32_t size;
    double value;
};

const TypeCase kTypes[] = {{"ui8 ", 1, 42},   {"ui16", 2, 1800},   {"ui32", 4, 123456},
                           {"si16", 2, -612}, {"flt ", 4, 1849.9}, {"fpe2", 2, 2982},
                           {"sp78", 2, 63.4}, {"flag", 1, 1},      {"hex_", 4, 77}};

void BM_Decode(benchmark::State &state) {
    const TypeCase &c = kTypes[state.range(0)];
    std::uint8_t bytes[8];
    smc_encode_double(smc_fourcc(c.type), c.size, bytes, c.value);
    std::uint32_t type = smc_fourcc(c.type);
    for (auto _ : state) {
        double out;
        benchmark::DoNotOptimize(smc_decode_double(type, bytes, c.size, &out));
        benchmark::DoNotOptimize(out);
    }
    state.SetLabel(c.type);
}
BENCHMARK(BM_Decode)->DenseRange(0, std::size(kTypes) - 1);

void BM_Encode(benchmark::State &state) {
    const TypeCase &c = kTypes[state.range(0)];
    std::uint8_t bytes[8];
    std::uint32_t type = smc_fourcc(c.type);
    for (auto _ : state) {
        benchmark::DoNotOptimize(smc_encode_double(type, c.size, bytes, c.value));
        benchmark::ClobberMemory();
    }
    state.SetLabel(c.type);
}
BENCHMARK(BM_Encode)->DenseRange(0, std::size(kTypes) - 1);

struct Fixture {
    ostrel::vsmc::Machine machine{ostrel::vsmc::builtinProfile("macbookpro10-1")};
    smc_conn *conn = nullptr;
    Fixture() {
        csmc::openConnection(&conn, std::make_unique<ostrel::vsmc::MemoryTransport>(machine));
    }
    ~Fixture() { smc_close(conn); }
};

void BM_KeyInfoCached(benchmark::State &state) {
    Fixture f;
    smc_key_info info;
    std::uint32_t key = smc_fourcc("TC0P");
    smc_key_info_get(f.conn, key, &info);
    for (auto _ : state) {
        benchmark::DoNotOptimize(smc_key_info_get(f.conn, key, &info));
    }
}
BENCHMARK(BM_KeyInfoCached);

void BM_ReadThroughMemoryTransport(benchmark::State &state) {
    Fixture f;
    double value;
    std::uint32_t key = smc_fourcc("TC0P");
    smc_read_double(f.conn, key, &value);
    f.machine.clearJournal();
    for (auto _ : state) {
        benchmark::DoNotOptimize(smc_read_double(f.conn, key, &value));
        if (f.machine.journal().size() > 100000) {
            state.PauseTiming();
            f.machine.clearJournal();
            state.ResumeTiming();
        }
    }
}
BENCHMARK(BM_ReadThroughMemoryTransport);

}  // namespace

BENCHMARK_MAIN();
