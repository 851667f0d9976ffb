// The channel: commands, status codes and the key-information cache, with every exchange
// counted in the virtual SMC's journal.

#include <gtest/gtest.h>

#include <thread>

#include "csmc/smc.h"
#include "csmc/transport.h"
#include "csmc/vsmc_transport.h"
#include "support/test_machine.h"
#include "support/transports.h"

namespace {

using ostrel::test::Connection;
using ostrel::vsmc::Fault;
using ostrel::vsmc::KeyEntry;
using ostrel::vsmc::Machine;

const std::uint32_t kTC0P = smc_fourcc("TC0P");
const std::uint32_t kF0Tg = smc_fourcc("F0Tg");
const std::uint32_t kNope = smc_fourcc("NOPE");

class ChannelTest : public testing::Test {
  protected:
    Machine machine = ostrel::test::machineFromRows(
        "key TC0P sp78 2 0xc0 63.5\n"
        "key F0Tg fpe2 2 0xd0 2000\n"
        "key F0Mx fpe2 2 0x80 6000\n"
        "key RPlt ch8* 8 0x80 \"j31\"\n");
    Connection conn{machine};
};

TEST_F(ChannelTest, ReadCostsOneInfoExchangeThenOneReadExchangePerRead) {
    smc_value value{};
    ASSERT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_OK);
    EXPECT_EQ(value.size, 2u);
    EXPECT_EQ(value.type, smc_fourcc("sp78"));
    EXPECT_EQ(value.bytes[0], 0x3F);
    EXPECT_EQ(value.bytes[1], 0x80);
    ASSERT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_OK);
    EXPECT_EQ(machine.count(SMC_CMD_KEY_INFO), 1u);
    EXPECT_EQ(machine.count(SMC_CMD_READ), 2u);
}

TEST_F(ChannelTest, MissingKeyCostsOneExchangeThenNone) {
    smc_value value{};
    EXPECT_EQ(smc_read(conn.get(), kNope, &value), SMC_ENOKEY);
    EXPECT_EQ(smc_read(conn.get(), kNope, &value), SMC_ENOKEY);
    EXPECT_EQ(smc_write(conn.get(), kNope, value.bytes, 2), SMC_ENOKEY);
    EXPECT_EQ(machine.totalExchanges(), 1u);
    EXPECT_EQ(machine.count(SMC_CMD_KEY_INFO), 1u);
}

TEST_F(ChannelTest, TransientInfoFailureIsNotCached) {
    machine.injectFault({kTC0P, SMC_CMD_KEY_INFO, 1, SMC_KERN_IO_ERROR, 0});
    smc_key_info info{};
    EXPECT_EQ(smc_key_info_get(conn.get(), kTC0P, &info),
              static_cast<std::int32_t>(SMC_KERN_IO_ERROR));
    EXPECT_EQ(smc_key_info_get(conn.get(), kTC0P, &info), SMC_OK);
    EXPECT_EQ(info.size, 2u);
    EXPECT_EQ(machine.count(SMC_CMD_KEY_INFO), 2u);
}

TEST_F(ChannelTest, SeededKeyIsReadWithExactlyOneExchange) {
    smc_key_info seeded{kTC0P, smc_fourcc("sp78"), 2, 0xC0};
    smc_key_info_seed(conn.get(), &seeded);
    double celsius = 0;
    ASSERT_EQ(smc_read_double(conn.get(), kTC0P, &celsius), SMC_OK);
    EXPECT_EQ(celsius, 63.5);
    EXPECT_EQ(machine.totalExchanges(), 1u);
    EXPECT_EQ(machine.count(SMC_CMD_READ), 1u);
}

TEST_F(ChannelTest, WriteLengthMustMatchTheKeySizeWithoutAWriteExchange) {
    std::uint8_t bytes[3] = {0x1F, 0x40, 0};
    EXPECT_EQ(smc_write(conn.get(), kF0Tg, bytes, 3), SMC_ESIZE);
    EXPECT_EQ(smc_write(conn.get(), kF0Tg, bytes, 1), SMC_ESIZE);
    EXPECT_EQ(machine.count(SMC_CMD_WRITE), 0u);
    ASSERT_EQ(smc_write(conn.get(), kF0Tg, bytes, 2), SMC_OK);
    ASSERT_EQ(machine.journal().back().command, SMC_CMD_WRITE);
    EXPECT_EQ(machine.journal().back().bytes, (std::vector<std::uint8_t>{0x1F, 0x40}));
}

TEST_F(ChannelTest, OversizedKeyIsRefusedBeforeAnyValueExchange) {
    KeyEntry big{smc_fourcc("BIG!"), smc_fourcc("hex_"), 33, 0xC0, {}};
    machine.keys().put(big);
    smc_value value{};
    std::uint8_t bytes[33] = {};
    EXPECT_EQ(smc_read(conn.get(), big.key, &value), SMC_ESIZE);
    EXPECT_EQ(smc_write(conn.get(), big.key, bytes, 33), SMC_ESIZE);
    EXPECT_EQ(smc_write(conn.get(), big.key, bytes, 32), SMC_ESIZE);
    EXPECT_EQ(machine.count(SMC_CMD_READ) + machine.count(SMC_CMD_WRITE), 0u);
}

TEST_F(ChannelTest, ResultAndKernelCodesMapToStatuses) {
    smc_value value{};
    // Firmware refusal: writing a read-only key.
    std::uint8_t bytes[2] = {0x5D, 0xC0};
    EXPECT_EQ(smc_write(conn.get(), smc_fourcc("F0Mx"), bytes, 2), SMC_EFIRMWARE);
    machine.injectFault({kTC0P, SMC_CMD_READ, 1, SMC_KERN_NOT_PRIVILEGED, 0});
    EXPECT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_ENOTPRIVILEGED);
    machine.injectFault({kTC0P, SMC_CMD_READ, 1, 0xE00002C2u, 0});
    EXPECT_EQ(smc_read(conn.get(), kTC0P, &value), static_cast<std::int32_t>(0xE00002C2u));
    machine.injectFault({kTC0P, SMC_CMD_READ, 1, 0, 0x85});
    EXPECT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_EFIRMWARE);
    machine.injectFault({kTC0P, SMC_CMD_READ, 1, 0, SMC_RESULT_KEY_NOT_FOUND});
    EXPECT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_ENOKEY);
    EXPECT_EQ(smc_read(conn.get(), kTC0P, &value), SMC_OK) << "faults run out";
}

TEST_F(ChannelTest, KeyCountNeedsAFourByteValue) {
    std::uint32_t count = 0;
    ASSERT_EQ(smc_key_count(conn.get(), &count), SMC_OK);
    EXPECT_EQ(count, 5u);  // four rows and #KEY
    Machine shortCount = ostrel::test::machineFromRows("key TC0P sp78 2 0xc0 40\n");
    shortCount.keys().put({smc_fourcc("#KEY"), smc_fourcc("ui16"), 2, 0x80, {0, 2}});
    Connection other(shortCount);
    EXPECT_EQ(smc_key_count(other.get(), &count), SMC_ESIZE);
}

TEST_F(ChannelTest, KeyAtIndexWalksTheTableInKeyOrderAndLeavesOutputOnFailure) {
    std::uint32_t key = 0;
    ASSERT_EQ(smc_key_at_index(conn.get(), 0, &key), SMC_OK);
    EXPECT_EQ(key, smc_fourcc("#KEY"));
    ASSERT_EQ(smc_key_at_index(conn.get(), 4, &key), SMC_OK);
    EXPECT_EQ(key, kTC0P);
    key = 42;
    EXPECT_EQ(smc_key_at_index(conn.get(), 5, &key), SMC_EFIRMWARE);
    EXPECT_EQ(key, 42u);
}

TEST_F(ChannelTest, ReadDoubleReportsUndecodableTypes) {
    double out = -1;
    EXPECT_EQ(smc_read_double(conn.get(), smc_fourcc("RPlt"), &out), SMC_ETYPE);
    EXPECT_EQ(out, -1);
    EXPECT_EQ(smc_read_double(conn.get(), kNope, &out), SMC_ENOKEY);
}

TEST(ChannelCache, GrowsAfterThe1024thKeyAndKeepsEveryEarlierKey) {
    Machine machine = ostrel::test::machineFromRows("");
    Connection conn(machine);
    // Keys that the machine does not know: each costs one exchange and a negative slot.
    auto keyFor = [](std::uint32_t i) { return 0x41000000u + i; };
    smc_key_info info{};
    for (std::uint32_t i = 0; i < 1024; ++i) {
        ASSERT_EQ(smc_key_info_get(conn.get(), keyFor(i), &info), SMC_ENOKEY);
    }
    EXPECT_EQ(csmc::cacheStats(conn.get()).capacity, 2048u);
    EXPECT_EQ(csmc::cacheStats(conn.get()).count, 1024u);
    ASSERT_EQ(smc_key_info_get(conn.get(), keyFor(1024), &info), SMC_ENOKEY);
    EXPECT_EQ(csmc::cacheStats(conn.get()).capacity, 4096u);
    EXPECT_EQ(csmc::cacheStats(conn.get()).count, 1025u);

    std::uint64_t before = machine.totalExchanges();
    for (std::uint32_t i = 0; i <= 1024; ++i) {
        ASSERT_EQ(smc_key_info_get(conn.get(), keyFor(i), &info), SMC_ENOKEY);
    }
    EXPECT_EQ(machine.totalExchanges(), before) << "every key must still be cached";
}

TEST(ChannelCache, SeedingReplacesWhatWasCachedWithoutGrowingTheCount) {
    Machine machine = ostrel::test::machineFromRows("key TC0P sp78 2 0xc0 40\n");
    Connection conn(machine);
    smc_key_info info{};
    ASSERT_EQ(smc_key_info_get(conn.get(), kNope, &info), SMC_ENOKEY);
    smc_key_info seeded{kNope, smc_fourcc("ui8 "), 1, 0x80};
    smc_key_info_seed(conn.get(), &seeded);
    ASSERT_EQ(smc_key_info_get(conn.get(), kNope, &info), SMC_OK);
    EXPECT_EQ(info.size, 1u);
    EXPECT_EQ(csmc::cacheStats(conn.get()).count, 1u);
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
    EXPECT_EQ(csmc::cacheStats(conn).capacity, 8192u);
    EXPECT_EQ(csmc::cacheStats(conn).count, kThreads * kPerThread + 2);
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
    smc_close(conn);
}

class ChannelOpen : public testing::Test {
  protected:
    ostrel::platform::FakeEnvironment env{{{"OSTREL_ROOT", "/nonexistent"}}};
    std::shared_ptr<csmc::TransportRegistry> all = ostrel::test::allTransports(env);
};

TEST_F(ChannelOpen, SelectorsReachTheirTransportsAndFailuresSayWhatWould) {
    csmc::OpenedTransport none = all->open("");
    EXPECT_EQ(none.status, SMC_ENOSERVICE);
    EXPECT_NE(none.detail.find("OSTREL_SMC"), std::string::npos);
    EXPECT_EQ(all->open("vsmcc:/tmp/x").detail,
              "unknown transport \"vsmcc\" in OSTREL_SMC=vsmcc:/tmp/x (expected memory:PROFILE, "
              "vsmc:SOCKET or applesmc[:DIR])");
    EXPECT_EQ(all->open("memory:").status, SMC_ENOSERVICE);
    EXPECT_EQ(all->open("memory:/no/such/profile").status, SMC_ENOSERVICE);
    EXPECT_EQ(all->open("memory:macbookpro16-1").status, SMC_OK);

    // A program that registers only what the daemon links cannot reach the simulator.
    csmc::TransportRegistry daemon;
    csmc::addVsmcTransport(daemon, ostrel::platform::realClock());
    EXPECT_EQ(daemon.open("memory:macbookpro16-1").detail,
              "unknown transport \"memory\" in OSTREL_SMC=memory:macbookpro16-1 (expected "
              "vsmc:SOCKET)");
}

TEST_F(ChannelOpen, MemoryConnectionsOfOneRegistryShareOneMachine) {
    smc_conn *ca = nullptr;
    smc_conn *cb = nullptr;
    ASSERT_EQ(csmc::openConnection(&ca, all->open("memory:macbookpro18-2")), SMC_OK);
    ASSERT_EQ(csmc::openConnection(&cb, all->open("memory:macbookpro18-2")), SMC_OK);
    std::uint8_t one = 1;
    ASSERT_EQ(smc_write(ca, smc_fourcc("Ftst"), &one, 1), SMC_OK);
    double seen = 0;
    ASSERT_EQ(smc_read_double(cb, smc_fourcc("Ftst"), &seen), SMC_OK);
    EXPECT_EQ(seen, 1.0);
    smc_close(ca);
    smc_close(cb);
}

TEST_F(ChannelOpen, SmcOpenUsesTheInstalledMachineAndSaysWhyItFails) {
    smc_conn *conn = reinterpret_cast<smc_conn *>(0x1);
    csmc::installProcessMachine({});
    EXPECT_EQ(smc_open(&conn), SMC_ENOSERVICE);
    EXPECT_EQ(conn, nullptr);
    EXPECT_NE(std::string(smc_open_detail()).find("no SMC transport was configured"),
              std::string::npos);

    csmc::installProcessMachine({all, "memory:/nonexistent/broken.profile", "/sys", nullptr});
    EXPECT_EQ(smc_open(&conn), SMC_ENOSERVICE);
    EXPECT_NE(std::string(smc_open_detail()).find("/nonexistent/broken.profile"),
              std::string::npos);
    csmc::installProcessMachine({all, "memory:macbookpro10-1", "/sys", nullptr});
    ASSERT_EQ(smc_open(&conn), SMC_OK);
    EXPECT_EQ(std::string(smc_open_detail()), "");
    smc_close(conn);
    csmc::installProcessMachine({});
}

}  // namespace
