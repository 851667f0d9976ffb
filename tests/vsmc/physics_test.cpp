// The virtual Mac's physics: every built-in machine at rest, under load and as text; heat
// against the failsafe ceiling, fans with inertia under a written target, keys, sensor services and
// battery that agree with the state, and runs that depend only on profile, scenario and seed.

#include <gtest/gtest.h>

#include <cmath>

#include "csmc/smc.h"
#include "ostrel/vsmc/machine.h"
#include "support/test_machine.h"

namespace {

using namespace ostrel::vsmc;
using ostrel::test::Connection;
using ostrel::test::readNumber;
using ostrel::test::writeNumber;

// Takes every fan into manual mode at its minimum or maximum the way the machine's class
// requires (with no refusals on test-key machines: the firmware tests cover those).
void holdFans(Machine &machine, bool atMax) {
    machine.setUnlockRefusals(0);
    Connection conn(machine);
    if (machine.fanControl() == FanControlKind::testKey) {
        ASSERT_EQ(writeNumber(conn.get(), "Ftst", 1), SMC_OK);
    }
    bool mask = machine.fanControl() == FanControlKind::forceMask;
    for (std::size_t i = 0; i < machine.fanCount(); ++i) {
        double rpm = readNumber(conn.get(), fanKey(i, atMax ? "Mx" : "Mn"));
        ASSERT_EQ(writeNumber(conn.get(), mask ? smc_fourcc("FS! ") : fanKey(i, "Md"),
                              mask ? static_cast<double>((2u << i) - 1) : 1),
                  SMC_OK);
        ASSERT_EQ(writeNumber(conn.get(), fanKey(i, "Tg"), rpm), SMC_OK);
        ASSERT_TRUE(machine.fanManual(i));
    }
}

double cpu(const Machine &machine) {
    return machine.simulation().state().node(Node::cpu);
}

class EveryProfile : public testing::TestWithParam<std::string> {};

// Every built-in machine starts at rest. At full load, fans held at their minimum let the
// CPU pass the failsafe ceiling within minutes (while sensors that are not fitted keep
// reading -127), and fans held at their maximum keep it settled well below.
TEST_P(EveryProfile, RestsAndPassesTheCeilingAtMinimumFansNotAtMaximumAndItsTextRoundTrips) {
    Machine slow = ostrel::test::builtinMachine(GetParam());
    std::vector<std::uint32_t> unfitted;
    for (const KeyEntry &entry : slow.keys().entries()) {
        std::optional<double> celsius = slow.number(entry.key);
        if ((entry.key >> 24) == 'T' && celsius) {
            // memory: machines never move from their profile's values, so a hot one would
            // keep a daemon in its failsafe for ever: every temperature stays below where
            // the Intel failsafe lets go (85 degC).
            EXPECT_LT(*celsius, 85) << codeToken(entry.key);
            if (*celsius == -127) {
                unfitted.push_back(entry.key);
            }
        }
    }
    holdFans(slow, false);
    slow.setLoad(1, 1);
    double seconds = 0;
    while (cpu(slow) <= 95 && seconds < 300) {
        slow.advance(5);
        seconds += 5;
    }
    EXPECT_GT(cpu(slow), 95) << "after " << seconds << " s";
    slow.advance(600);
    EXPECT_LT(cpu(slow), 110) << "the CPU sheds power rather than cook";
    Connection conn(slow);
    for (std::uint32_t key : unfitted) {
        EXPECT_EQ(readNumber(conn.get(), key), -127);
    }

    Machine fast = ostrel::test::builtinMachine(GetParam());
    holdFans(fast, true);
    fast.setLoad(1, 1);
    fast.advance(1200);
    double settled = cpu(fast);
    fast.advance(120);
    EXPECT_LT(settled, 85);
    EXPECT_NEAR(cpu(fast), settled, 0.5) << "still climbing";

    // Its profile formats and parses back to itself, and a dump of its key table alone
    // loads as a machine with fans and heat.
    Profile original = builtinProfile(GetParam());
    Profile again = parseProfile(formatProfile(original), "again");
    EXPECT_EQ(std::tie(again.model, again.keys, again.params, again.bindings, again.sensors,
                       again.battery),
              std::tie(original.model, original.keys, original.params, original.bindings,
                       original.sensors, original.battery));

    // What `ostrel smc dump` writes holds only the model and the keys.
    Machine rest(original);
    Profile dump;
    dump.model = rest.model();
    dump.keys = rest.keys().entries();
    Machine machine(parseProfile(formatProfile(dump), "dump.profile"));
    EXPECT_EQ(std::pair(machine.fanCount(), machine.fanControl()),
              std::pair(rest.fanCount(), rest.fanControl()));
    machine.setLoad(1, 1);
    machine.advance(120);
    EXPECT_GT(machine.simulation().state().node(Node::cpu), 60);
}

INSTANTIATE_TEST_SUITE_P(All, EveryProfile, testing::ValuesIn(builtinProfileNames()));

TEST(Heat, StaysBetweenTheRoomAndTheHottestPossibleAndARunDependsOnlyOnItsInputs) {
    // Tiny capacities and huge conductances would make naive explicit steps explode.
    std::string stiff =
        "model Stiff,1\nkey FNum ui8 1 0x80 1\nkey F0Ac fpe2 2 0x80 6000\n"
        "key F0Mn fpe2 2 0x80 6000\nkey F0Mx fpe2 2 0x80 6000\n";
    for (const char *name : {"cpu", "gpu", "proximity", "heatsink", "board", "battery"}) {
        stiff += std::string("physics ") + name + "-capacity 0.1\n";
    }
    for (const char *name : {"cpu-heatsink", "gpu-heatsink", "cpu-proximity", "proximity-board",
                             "heatsink-board", "board-ambient", "airflow"}) {
        stiff += std::string("physics ") + name + " 1000\n";
    }
    Machine machine(parseProfile(stiff + "battery cells 3\n", "stiff"));
    machine.setLoad(1, 1);
    for (int i = 0; i < 100; ++i) {
        machine.advance(0.3);
        for (double t : machine.simulation().state().temperature) {
            ASSERT_TRUE(std::isfinite(t));
            ASSERT_GE(t, 20);
            ASSERT_LT(t, 200);
        }
    }

    // A run depends only on profile, scenario and seed.
    Scenario scenario = parseScenario(
        "at 0 cpu 0.1\nat 20 cpu 1 gpu 0.7 over 10\nat 200 power battery\nat 300 cpu 0.2 over 30\n",
        "s");
    auto run = [&](std::uint64_t seed, double slice) {
        Machine machine(builtinProfile("macbookpro10-1"), seed);
        machine.play(scenario);
        for (double t = 0; t < 400 - 1e-9; t += slice) {
            machine.advance(slice);
        }
        return machine;
    };
    Machine a = run(7, 1);
    Machine sliced = run(7, 0.25);
    Machine otherSeed = run(8, 1);
    EXPECT_EQ(statusJson(a), statusJson(sliced)) << "the same inputs however time is sliced";
    EXPECT_EQ(a.keys().entries(), sliced.keys().entries());
    EXPECT_EQ(a.simulation().state().temperature, otherSeed.simulation().state().temperature)
        << "the seed only chooses sensor noise";
    EXPECT_NE(a.keys().entries(), otherSeed.keys().entries());
    EXPECT_FALSE(a.simulation().state().battery.external);
}

TEST(FansAndBattery, FansFollowWithInertiaAndBatteryKeysAgreeWithItsDictionary) {
    Machine machine = ostrel::test::builtinMachine("macbookpro16-1");
    Connection conn(machine);
    writeNumber(conn.get(), smc_fourcc("F0Md"), 1);
    writeNumber(conn.get(), smc_fourcc("F0Tg"), 2000);
    machine.advance(30);
    const FanState &fan = machine.simulation().state().fans[0];
    ASSERT_NEAR(fan.actual, 2000, 1);

    writeNumber(conn.get(), smc_fourcc("F0Tg"), 5000);
    machine.advance(0.5);
    double upGap = (5000 - fan.actual) / 3000;
    EXPECT_GT(fan.actual, 2000);
    EXPECT_GT(upGap, 0.3) << "no fan reaches a new speed at once";
    machine.advance(10);
    EXPECT_NEAR(fan.actual, 5000, 50);

    writeNumber(conn.get(), smc_fourcc("F0Tg"), 2000);
    machine.advance(0.5);
    double downGap = (fan.actual - 2000) / 3000;
    EXPECT_GT(downGap, upGap);
    EXPECT_NEAR(readNumber(conn.get(), "F0Ac"), fan.actual, 10) << "F0Ac shows the speed";

    // The battery's keys and its dictionary agree while it discharges.
    nlohmann::json before = machine.batteryProperties();
    machine.setLoad(0.6, 0.3);
    machine.advance(600);
    nlohmann::json battery = machine.batteryProperties();
    EXPECT_LT(battery["Amperage"].get<int>(), 0);
    EXPECT_EQ(battery["IsCharging"], 0);
    EXPECT_EQ(battery["ExternalConnected"], 0);
    EXPECT_EQ(readNumber(conn.get(), "B0AC"), battery["Amperage"].get<double>());
    EXPECT_EQ(readNumber(conn.get(), "B0AV"), battery["Voltage"].get<double>());
    EXPECT_EQ(readNumber(conn.get(), "B0RM"), battery["CurrentCapacity"].get<double>());
    EXPECT_EQ(readNumber(conn.get(), "B0FC"), battery["MaxCapacity"].get<double>());
    EXPECT_EQ(readNumber(conn.get(), "B0CT"), battery["CycleCount"].get<double>());
    EXPECT_LT(battery["CurrentCapacity"].get<int>(), before["CurrentCapacity"].get<int>());
    EXPECT_NEAR(readNumber(conn.get(), "TB0T"), battery["Temperature"].get<double>() / 100, 2);
    EXPECT_EQ(readNumber(conn.get(), "PDTR"), 0) << "no adapter";
    EXPECT_NEAR(readNumber(conn.get(), "PPBR"), machine.simulation().value(Source::systemPower),
                0.01);
    EXPECT_EQ(battery["BatteryData"]["CycleCount"], battery["CycleCount"]);

    // It charges on the adapter, and a desktop has none.
    Machine laptop = ostrel::test::builtinMachine("macbookpro10-1");
    laptop.advance(60);
    battery = laptop.batteryProperties();
    EXPECT_EQ(battery["IsCharging"], 1);
    EXPECT_GT(battery["Amperage"].get<int>(), 2000);
    EXPECT_TRUE(ostrel::test::builtinMachine("macpro7-1").batteryProperties().is_null());
}

// On Apple silicon fans stop at idle and start when the SoC gets warm; power keys,
// temperature keys and sensor services follow the state meanwhile.
TEST(Fans, OnAppleSiliconStopAtIdleAndStartWhenTheSocGetsWarmAsKeysAndSensorsFollow) {
    Machine machine = ostrel::test::builtinMachine("macbookpro18-2");
    Connection conn(machine);
    machine.setLoad(0.02, 0.01);
    machine.advance(120);
    EXPECT_EQ(readNumber(conn.get(), "F0Ac"), 0);
    EXPECT_EQ(readNumber(conn.get(), "F1Ac"), 0);
    EXPECT_EQ(readNumber(conn.get(), "F0Tg"), 0);

    machine.setLoad(1, 0.5);
    machine.advance(300);
    EXPECT_GE(readNumber(conn.get(), "F0Ac"), 1499 - 10);
    const Simulation &sim = machine.simulation();
    double noise = sim.params().sensorNoise;
    EXPECT_NEAR(readNumber(conn.get(), "PSTR"),
                sim.state().cpuPower + sim.state().gpuPower + sim.params().boardPower, 0.01);
    EXPECT_GT(sim.state().cpuPower, 30);
    EXPECT_NEAR(readNumber(conn.get(), "Tp01"), cpu(machine), 1.5 + noise);
    EXPECT_NEAR(readNumber(conn.get(), "Tg05"), sim.value(Source::gpu), 1.5 + noise);
    std::vector<csmc::TemperatureSensor> sensors = machine.temperatureSensors();
    ASSERT_GE(sensors.size(), 9u);
    EXPECT_EQ(sensors.front().name, "pACC MTR Temp Sensor0");
    EXPECT_NEAR(sensors.front().celsius, cpu(machine) + 1.1, noise);
    EXPECT_EQ(sensors.back().name, "gas gauge battery");
    EXPECT_NEAR(sensors.back().celsius, sim.value(Source::battery), noise);

    machine.setLoad(0.02, 0.01);
    machine.advance(1200);
    EXPECT_EQ(readNumber(conn.get(), "F0Ac"), 0);
    EXPECT_FALSE(machine.simulation().state().fans[0].spinning);
}

}  // namespace
