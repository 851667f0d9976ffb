// The battery dictionary built from power-supply trees in a temporary directory.

#include <gtest/gtest.h>

#include <sstream>

#include "ostrel/battery_sysfs.h"
#include "support/temp_dir.h"

namespace {

using nlohmann::json;
using ostrel::batteryPropertiesFromSysfs;
using ostrel::test::TempDir;

class PowerSupplyTree : public testing::Test {
  protected:
    TempDir root;

    // Writes a supply's files, given as blank-separated "file=contents" items.
    void supply(const std::string &name, const std::string &files) {
        std::istringstream items(files);
        for (std::string item; items >> item;) {
            std::size_t eq = item.find('=');
            root.put("sys/class/power_supply/" + name + "/" + item.substr(0, eq),
                     item.substr(eq + 1) + "\n");
        }
    }
    std::optional<json> read() {
        return batteryPropertiesFromSysfs(root.path() + "/sys", ostrel::platform::realFiles());
    }
};

TEST_F(PowerSupplyTree, ChargeCountingBatteryOnMains) {
    supply("AC", "type=Mains online=1");
    supply("BAT0",
           "type=Battery present=1 status=Charging capacity=81 charge_now=5120000 "
           "charge_full=6300000 charge_full_design=7000000 voltage_now=12603000 "
           "current_now=1234567 cycle_count=312 temp=305");
    EXPECT_EQ(read(), json::parse(R"({
        "CurrentCapacity": 81, "MaxCapacity": 100, "FullChargeCapacity": 6300,
        "DesignCapacity": 7000, "Voltage": 12603, "Amperage": 1235, "Temperature": 3050,
        "CycleCount": 312, "IsCharging": true, "ExternalConnected": true})"));
}

// 11.4 W at 11.4 V is 1 A drawn; 0 cycles means unknown.
TEST_F(PowerSupplyTree, EnergyCountingBatteryDischargingWithUnsignedPower) {
    supply("ADP1", "type=Mains online=0");
    supply("BAT1",
           "type=Battery status=Discharging energy_now=40000000 energy_full=50000000 "
           "energy_full_design=57000000 voltage_now=11400000 power_now=11400000 cycle_count=0");
    EXPECT_EQ(read(), json::parse(R"({
        "CurrentCapacity": 40000, "MaxCapacity": 50000, "FullChargeCapacity": 50000,
        "DesignCapacity": 57000, "Voltage": 11400, "Amperage": -1000, "IsCharging": false,
        "ExternalConnected": false})"));
}

TEST_F(PowerSupplyTree, AbsentBatteriesDeviceBatteriesAndGarbageFiles) {
    EXPECT_FALSE(read()) << "no power_supply directory";
    supply("AC", "type=Mains online=1");
    supply("BAT0", "type=Battery present=0");
    EXPECT_FALSE(read()) << "a battery bay without a battery";
    // A wireless mouse sorts first and is nearly empty; it is not the machine's battery.
    supply("0mouse", "type=Battery scope=Device capacity=5");
    supply("0pad", "type=USB scope=Device online=1");
    EXPECT_FALSE(read()) << "only device batteries";
    // The machine's battery, not the mouse's; unparsable numbers are left out, and a full
    // battery keeps the driver's sign.
    supply("BAT1",
           "type=Battery status=Full voltage_now=12.6V current_now=-500000 scope=System "
           "capacity=90");
    EXPECT_EQ(read(), json::parse(R"({"CurrentCapacity": 90, "MaxCapacity": 100,
        "Amperage": -500, "IsCharging": false, "ExternalConnected": true})"));
}

}  // namespace
