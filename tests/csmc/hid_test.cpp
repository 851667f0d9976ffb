// Temperature-sensor services: hwmon trees in a temporary OSTREL_ROOT and virtual lists.

#include <gtest/gtest.h>

#include "csmc/hid.h"
#include "support/real_files.h"
#include "support/temp_dir.h"
#include "support/transports.h"

namespace {

using ostrel::platform::FakeEnvironment;
using ostrel::platform::realFiles;
using ostrel::test::TempDir;
using Readings = std::vector<std::pair<std::string, double>>;

struct Handle {
    smc_hid *hid;
    ~Handle() { smc_hid_close(hid); }
    Readings read(std::int32_t capacity) {
        std::vector<smc_hid_reading> out(static_cast<std::size_t>(std::max(capacity, 1)));
        out.resize(static_cast<std::size_t>(smc_hid_read(hid, out.data(), capacity)));
        Readings result;
        for (const smc_hid_reading &r : out) {
            result.emplace_back(r.name, r.celsius);
        }
        return result;
    }
};

// A virtual Mac's transport whose sensor list a test changes between reads; without a list
// it stands for real hardware.
class SensorTransport final : public csmc::Transport {
  public:
    explicit SensorTransport(std::vector<csmc::TemperatureSensor> *list) : list_(list) {}
    std::uint32_t exchange(const smc_param &, smc_param &) override { return SMC_KERN_ERROR; }
    std::optional<std::vector<csmc::TemperatureSensor>> temperatureSensors() override {
        return list_ != nullptr ? std::optional(*list_) : std::nullopt;
    }

  private:
    std::vector<csmc::TemperatureSensor> *list_;
};

Handle open(std::vector<csmc::TemperatureSensor> *list) {
    return {csmc::openHid(csmc::transportServices(std::make_unique<SensorTransport>(list)))};
}

TEST(HidRead, SkipsImplausibleValuesPacksTheOutputCutsLongNamesAndFollowsNames) {
    std::string longName = std::string(62, 'x') + "\u00b0C";  // a character across byte 63
    std::vector<csmc::TemperatureSensor> list = {{"pACC MTR Temp Sensor0", 45},
                                                 {"zero", 0},
                                                 {"negative", -4},
                                                 {"too hot", 150.5},
                                                 {"hot", 150},
                                                 {"", 30},
                                                 {longName, 40}};
    Handle h = open(&list);
    ASSERT_EQ(smc_hid_count(h.hid), 7);
    EXPECT_EQ(h.read(10), (Readings{{"pACC MTR Temp Sensor0", 45},
                                    {"hot", 150},
                                    {"HID sensor 5", 30},
                                    {std::string(62, 'x'), 40}}));
    EXPECT_EQ(h.read(0).size(), 0u);

    // Names are fixed at opening; values follow by name, and a sensor gone has none.
    list = {{"new one", 70}, {"hot", 149}};
    EXPECT_EQ(h.read(10), (Readings{{"hot", 149}}));
    list.push_back({"pACC MTR Temp Sensor0", 46});
    EXPECT_EQ(h.read(10), (Readings{{"pACC MTR Temp Sensor0", 46}, {"hot", 149}}));

    // Null handles, and empty or missing lists, give nothing.
    std::vector<csmc::TemperatureSensor> none;
    EXPECT_EQ(open(&none).hid, nullptr);
    EXPECT_EQ(csmc::transportServices(std::make_unique<SensorTransport>(nullptr)), nullptr);
    EXPECT_EQ(csmc::openHid(nullptr), nullptr);
    EXPECT_EQ(smc_hid_count(nullptr), 0);
    smc_hid_reading out[1];
    EXPECT_EQ(smc_hid_read(nullptr, out, 1), 0);
}

// Real files, counting the reads of temperature inputs.
class CountingFiles final : public ostrel::test::RealFiles {
  public:
    mutable int inputReads = 0;
    std::optional<std::string> read(const std::string &path) const override {
        inputReads += path.ends_with("_input");
        return RealFiles::read(path);
    }
};

TEST(HwmonTree, NamesChipsByWordAndLabelReadsOnlyWhatFitsAndGivesWayToAVirtualMac) {
    TempDir root;
    FakeEnvironment env{{{"OSTREL_ROOT", root.path()}}};
    // What smc_hid_open reaches in a process whose OSTREL_SMC is unset.
    csmc::ProcessMachine machine{ostrel::test::allTransports(env), "", root.path() + "/sys",
                                 &realFiles()};
    auto chip = [&](const std::string &hwmon, const std::string &name,
                    std::vector<std::tuple<int, std::string, std::string>> temps) {
        std::string dir = "sys/class/hwmon/" + hwmon + "/";
        root.put(dir + "name", name + "\n");
        for (auto &[n, label, millis] : temps) {
            std::string base = dir + "temp" + std::to_string(n);
            if (!label.empty()) {
                root.put(base + "_label", label + "\n");
            }
            root.put(base + "_input", millis + "\n");
        }
    };
    EXPECT_EQ(csmc::openHid(csmc::selectedServices(machine)), nullptr) << "no hwmon directory";
    chip("hwmon10", "nvme", {{1, "Composite", "38850"}});
    chip("hwmon2", "coretemp",
         {{1, "Package id 0", "52000"}, {10, "Core 8", "50000"}, {2, "Core 0", "49000"}});
    chip("hwmon3", "applesmc", {{1, "TC0P", "60000"}});
    chip("hwmon4", "amdgpu", {{1, "edge", "41000"}, {2, "", "garbage"}});
    chip("hwmon1", "acpitz", {{1, "", "0"}});
    Handle h{csmc::openHid(csmc::selectedServices(machine))};
    ASSERT_EQ(smc_hid_count(h.hid), 7);
    EXPECT_EQ(h.read(16), (Readings{{"CPU Package id 0", 52.0},
                                    {"CPU Core 0", 49.0},
                                    {"CPU Core 8", 50.0},
                                    {"GPU edge", 41.0},
                                    {"SSD Composite", 38.85}}))
        << "garbage and 0 readings are skipped";
    CountingFiles files;
    Handle two{csmc::openHid(csmc::hwmonServices(root.path() + "/sys", files))};
    EXPECT_EQ(two.read(2), (Readings{{"CPU Package id 0", 52.0}, {"CPU Core 0", 49.0}}));
    EXPECT_EQ(files.inputReads, 3) << "the implausible first one, then two";

    // A selected virtual Mac brings its own list.
    machine.selector = "memory:macbookpro18-2";
    Handle virtualMac{csmc::openHid(csmc::selectedServices(machine))};
    ASSERT_GT(smc_hid_count(virtualMac.hid), 1);
    EXPECT_EQ(virtualMac.read(1)[0].first, "pACC MTR Temp Sensor0");
}

}  // namespace
