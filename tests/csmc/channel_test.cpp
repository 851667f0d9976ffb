// The channel: commands, status codes and the key-information cache, with every exchange
// counted in the virtual SMC's journal.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "csmc/smc.h"
#include "csmc/transport.h"
#include "csmc/vsmc_transport.h"
#include "support/test_machine.h"
#include "support/transports.h"

namespace {

using ostrel::test::Connection;
using ostrel::vsmc::KeyEntry;
using ostrel::vsmc::Machine;
using testing::HasSubstr;
using Counts = std::vector<std::uint64_t>;
using Statuses = std::vector<std::int32_t>;

const std::uint32_t kTC0P = smc_fourcc("TC0P");
const std::uint32_t kF0Tg = smc_fourcc("F0Tg");
const std::uint32_t kNope = smc_fourcc("NOPE");

// The cache's capacity and count.
std::pair<std::uint32_t, std::uint32_t> cache(smc_conn *conn) {
    csmc::CacheStats stats = csmc::cacheStats(conn);
    return {stats.capacity, stats.count};
}

// A key costs one information exchange once, and missing or seeded keys and wrong sizes
// none; codes map to statuses; the table is walked in key order.
TEST(Channel, ExchangesStatusesAndTheTableWalkAsTheChannelPromisesThem) {
    Machine machine = ostrel::test::machineFromRows(
        "key TC0P sp78 2 0xc0 63.5\n"
        "key F0Tg fpe2 2 0xd0 2000\n"
        "key F0Mx fpe2 2 0x80 6000\n"
        "key RPlt ch8* 8 0x80 \"j31\"\n");
    Connection conn{machine};
    // Exchanges so far: key information, reads, writes.
    auto exchanges = [&] {
        return Counts{machine.count(SMC_CMD_KEY_INFO), machine.count(SMC_CMD_READ),
                      machine.count(SMC_CMD_WRITE)};
    };
    smc_value value{};
    ASSERT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_OK);
    EXPECT_EQ(std::vector<std::uint8_t>(value.bytes, value.bytes + value.size),
              (std::vector<std::uint8_t>{0x3F, 0x80}));
    EXPECT_EQ(value.type, smc_fourcc("sp78"));
    ASSERT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_OK);
    EXPECT_EQ(smc_read(conn.get(), kNope, &value), SMC_ENOKEY);
    EXPECT_EQ(smc_write(conn.get(), kNope, value.bytes, 2), SMC_ENOKEY);
    EXPECT_EQ(exchanges(), (Counts{2, 2, 0}));

    smc_key_info seeded{smc_fourcc("F0Mx"), smc_fourcc("fpe2"), 2, 0x80};
    smc_key_info_seed(conn.get(), &seeded);
    EXPECT_EQ(ostrel::test::readNumber(conn.get(), "F0Mx"), 6000);
    EXPECT_EQ(exchanges(), (Counts{2, 3, 0}));

    double number = -1;
    EXPECT_EQ(smc_read_double(conn.get(), smc_fourcc("RPlt"), &number), SMC_ETYPE);
    EXPECT_EQ(number, -1) << "an undecodable type leaves the output alone";

    // Result and kernel codes map to statuses. Firmware refusal: writing a read-only key.
    EXPECT_EQ(smc_write(conn.get(), smc_fourcc("F0Mx"), value.bytes, 2), SMC_EFIRMWARE);
    const std::vector<std::tuple<std::uint32_t, std::uint8_t, std::int32_t>> cases = {
        {SMC_KERN_NOT_PRIVILEGED, 0, SMC_ENOTPRIVILEGED},
        {0xE00002C2u, 0, static_cast<std::int32_t>(0xE00002C2u)},
        {0, 0x85, SMC_EFIRMWARE},
        {0, SMC_RESULT_KEY_NOT_FOUND, SMC_ENOKEY},
        {0, 0, SMC_OK}};  // faults run out
    for (auto [kern, result, status] : cases) {
        if (kern != 0 || result != 0) {
            machine.injectFault({kTC0P, SMC_CMD_READ, 1, kern, result});
        }
        EXPECT_EQ(smc_read(conn.get(), kTC0P, &value), status) << kern << " " << int{result};
    }

    // The table is walked in key order, and its count needs a four-byte value.
    std::uint32_t count = 0, first = 0, key = 0;  // count: four rows and #KEY
    EXPECT_EQ((Statuses{smc_key_count(conn.get(), &count), smc_key_at_index(conn.get(), 0, &first),
                        smc_key_at_index(conn.get(), 4, &key)}),
              Statuses(3, SMC_OK));
    EXPECT_EQ(std::tuple(count, first, key), std::tuple(5u, smc_fourcc("#KEY"), kTC0P));
    key = 42;
    EXPECT_EQ(smc_key_at_index(conn.get(), 5, &key), SMC_EFIRMWARE);
    EXPECT_EQ(key, 42u) << "output left alone on failure";

    machine.keys().put({smc_fourcc("#KEY"), smc_fourcc("ui16"), 2, 0x80, {0, 2}});
    Connection fresh(machine);
    EXPECT_EQ(smc_key_count(fresh.get(), &count), SMC_ESIZE);

    // Wrong sizes are refused without a value exchange; failures are not cached.
    Counts before = exchanges();
    machine.injectFault({kF0Tg, SMC_CMD_KEY_INFO, 1, SMC_KERN_IO_ERROR, 0});
    smc_key_info info{};
    EXPECT_EQ(smc_key_info_get(conn.get(), kF0Tg, &info),
              static_cast<std::int32_t>(SMC_KERN_IO_ERROR));
    std::uint8_t bytes[33] = {0x1F, 0x40, 0};
    KeyEntry big{smc_fourcc("BIG!"), smc_fourcc("hex_"), 33, 0xC0, {}};
    machine.keys().put(big);
    EXPECT_EQ(
        (Statuses{smc_write(conn.get(), kF0Tg, bytes, 3), smc_write(conn.get(), kF0Tg, bytes, 1),
                  smc_read(conn.get(), big.key, &value), smc_write(conn.get(), big.key, bytes, 33),
                  smc_write(conn.get(), big.key, bytes, 32)}),
        Statuses(5, SMC_ESIZE));
    EXPECT_EQ(exchanges(), (Counts{before[0] + 3, before[1], before[2]}));

    ASSERT_EQ(smc_write(conn.get(), kF0Tg, bytes, 2), SMC_OK);
    EXPECT_EQ(machine.journal().back().bytes, (std::vector<std::uint8_t>{0x1F, 0x40}));
}

// Several threads insert into one connection's cache while it grows twice over (2048 to
// 8192 slots), seeding and looking up as they go; afterwards every answer is still there
// and right, and none costs an exchange.
TEST(ChannelCache, ConcurrentInsertionAndGrowthLoseNothing) {
    Machine machine = ostrel::test::builtinMachine("macbookpro10-1");
    std::mutex guard;
    smc_conn *conn = nullptr;
    ASSERT_EQ(csmc::openConnection(&conn, std::make_unique<ostrel::vsmc::MemoryTransport>(
                                              machine, ostrel::vsmc::Caller{}, &guard)),
              SMC_OK);
    constexpr std::uint32_t kThreads = 4;
    constexpr std::uint32_t kPerThread = 700;  // 2800 entries: two doublings
    // Thread t's keys: unknown ones (negative entries), seeded ones, and two real keys.
    auto unknownKey = [](std::uint32_t t, std::uint32_t i) {
        return 0x41000000u + t * 0x10000 + i;
    };
    auto seededKey = [](std::uint32_t t, std::uint32_t i) { return 0x42000000u + t * 0x10000 + i; };
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (std::uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            smc_key_info info{};
            for (std::uint32_t i = 0; i < kPerThread / 2; ++i) {
                smc_key_info seeded{seededKey(t, i), smc_fourcc("ui8 "), t + 1, 0x80};
                smc_key_info_seed(conn, &seeded);
                failures += smc_key_info_get(conn, unknownKey(t, i), &info) != SMC_ENOKEY;
                double v = 0;
                failures +=
                    smc_read_double(conn, smc_fourcc(i % 2 ? "F0Mn" : "F1Mn"), &v) != SMC_OK ||
                    v != (i % 2 ? 2160.0 : 2000.0);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(cache(conn), std::pair(8192u, kThreads * kPerThread + 2));
    std::uint64_t before = machine.totalExchanges();
    smc_key_info info{};
    for (std::uint32_t t = 0; t < kThreads; ++t) {
        for (std::uint32_t i = 0; i < kPerThread / 2; ++i) {
            ASSERT_EQ(smc_key_info_get(conn, unknownKey(t, i), &info), SMC_ENOKEY);
            ASSERT_EQ(smc_key_info_get(conn, seededKey(t, i), &info), SMC_OK);
            ASSERT_EQ(info.size, t + 1);
        }
    }
    EXPECT_EQ(machine.totalExchanges(), before) << "every answer must still be cached";

    // The table doubles on the entry that passes half its slots, not one earlier or later,
    // and seeding over a negative entry replaces it without counting twice.
    for (std::uint32_t i = 0; cache(conn).second < 4096; ++i) {
        smc_key_info_get(conn, 0x43000000u + i, &info);
    }
    EXPECT_EQ(cache(conn), std::pair(8192u, 4096u));
    smc_key_info_get(conn, 0x44000000u, &info);
    EXPECT_EQ(cache(conn), std::pair(16384u, 4097u));
    smc_key_info seeded{unknownKey(0, 0), smc_fourcc("ui8 "), 1, 0x80};
    smc_key_info_seed(conn, &seeded);
    EXPECT_EQ(smc_key_info_get(conn, seeded.key, &info), SMC_OK);
    EXPECT_EQ(cache(conn), std::pair(16384u, 4097u));
    smc_close(conn);
}

TEST(ChannelOpen, SelectorsAndSmcOpenReachTheirTransportsAndFailuresSayWhatWould) {
    ostrel::platform::FakeEnvironment env{{{"OSTREL_ROOT", "/nonexistent"}}};
    std::shared_ptr<csmc::TransportRegistry> all = ostrel::test::allTransports(env);
    EXPECT_EQ(all->open("memory:").status, SMC_ENOSERVICE);

    // A program that registers only what the daemon links cannot reach the simulator.
    csmc::TransportRegistry daemon;
    csmc::addVsmcTransport(daemon, ostrel::platform::realClock());
    EXPECT_EQ(daemon.open("memory:macbookpro16-1").detail,
              "unknown transport \"memory\" in OSTREL_SMC=memory:macbookpro16-1 (expected "
              "vsmc:SOCKET)");

    // smc_open uses the installed machine and says why it fails; memory connections of one
    // registry share one machine.
    smc_conn *conn = reinterpret_cast<smc_conn *>(0x1);
    csmc::installProcessMachine({});
    EXPECT_EQ(smc_open(&conn), SMC_ENOSERVICE);
    EXPECT_EQ(conn, nullptr);
    EXPECT_THAT(smc_open_detail(), HasSubstr("no SMC transport was configured"));

    csmc::installProcessMachine({all, "memory:/nonexistent/broken.profile", "/sys", nullptr});
    EXPECT_EQ(smc_open(&conn), SMC_ENOSERVICE);
    EXPECT_THAT(smc_open_detail(), HasSubstr("/nonexistent/broken.profile"));
    csmc::installProcessMachine({all, "memory:macbookpro18-2", "/sys", nullptr});
    smc_conn *other = nullptr;
    ASSERT_EQ(smc_open(&conn), SMC_OK);
    EXPECT_EQ(std::string(smc_open_detail()), "");
    ASSERT_EQ(smc_open(&other), SMC_OK);
    ASSERT_EQ(ostrel::test::writeNumber(conn, "Ftst", 1), SMC_OK);
    EXPECT_EQ(ostrel::test::readNumber(other, "Ftst"), 1);
    smc_close(conn);
    smc_close(other);
    csmc::installProcessMachine({});
}

}  // namespace
