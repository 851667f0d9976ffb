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

// A list of sensors that a test can change between reads.
class ListServices final : public csmc::TemperatureServices {
  public:
    explicit ListServices(std::vector<std::pair<std::string, std::optional<double>>> *sensors)
        : sensors_(sensors) {}
    std::vector<std::string> names() override {
        std::vector<std::string> names;
        for (auto &[name, value] : *sensors_) {
            names.push_back(name);
        }
        return names;
    }
    void read(const std::function<bool(std::size_t, std::optional<double>)> &take) override {
        for (std::size_t i = 0; i < sensors_->size() && take(i, (*sensors_)[i].second); ++i) {
        }
    }
    bool chipServices() const override { return true; }

  private:
    std::vector<std::pair<std::string, std::optional<double>>> *sensors_;
};

struct Handle {
    smc_hid *hid;
    ~Handle() { smc_hid_close(hid); }
    std::vector<std::pair<std::string, double>> read(std::int32_t capacity) {
        std::vector<smc_hid_reading> out(static_cast<std::size_t>(std::max(capacity, 1)));
        std::int32_t n = smc_hid_read(hid, out.data(), capacity);
        std::vector<std::pair<std::string, double>> result;
        for (std::int32_t i = 0; i < n; ++i) {
            result.emplace_back(out[static_cast<std::size_t>(i)].name,
                                out[static_cast<std::size_t>(i)].celsius);
        }
        return result;
    }
};

TEST(HidRead, SkipsMissingAndImplausibleValuesAndPacksTheOutput) {
    std::vector<std::pair<std::string, std::optional<double>>> sensors = {
        {"pACC MTR Temp Sensor0", 45.0},
        {"PMU tdie1", std::nullopt},
        {"zero", 0.0},
        {"negative", -4.0},
        {"too hot", 150.5},
        {"hot", 150.0},
        {"", 30.0}};
    Handle h{csmc::openHid(std::make_unique<ListServices>(&sensors))};
    ASSERT_EQ(smc_hid_count(h.hid), 7);
    EXPECT_EQ(h.read(10),
              (std::vector<std::pair<std::string, double>>{
                  {"pACC MTR Temp Sensor0", 45.0}, {"hot", 150.0}, {"HID sensor 6", 30.0}}));
    EXPECT_EQ(h.read(1).size(), 1u);
    EXPECT_EQ(h.read(0).size(), 0u);
    sensors[1].second = 50.0;
    EXPECT_EQ(h.read(2)[1], (std::pair<std::string, double>{"PMU tdie1", 50.0}));
}

TEST(HidRead, NullHandleAndEmptyServiceListsGiveNothing) {
    std::vector<std::pair<std::string, std::optional<double>>> none;
    EXPECT_EQ(csmc::openHid(std::make_unique<ListServices>(&none)), nullptr);
    EXPECT_EQ(csmc::openHid(nullptr), nullptr);
    EXPECT_EQ(smc_hid_count(nullptr), 0);
    smc_hid_reading out[1];
    EXPECT_EQ(smc_hid_read(nullptr, out, 1), 0);
    smc_hid_close(nullptr);
}

TEST(HidRead, LongNamesAreCutAtACharacterBoundary) {
    std::string longName(62, 'x');
    longName += "\u00b0C";  // a two-byte character straddling the 63-byte limit
    std::vector<std::pair<std::string, std::optional<double>>> sensors = {{longName, 40.0}};
    Handle h{csmc::openHid(std::make_unique<ListServices>(&sensors))};
    EXPECT_EQ(h.read(1)[0].first, std::string(62, 'x'));
}

class HwmonTree : public testing::Test {
  protected:
    TempDir root;
    FakeEnvironment env{{{"OSTREL_ROOT", root.path()}}};
    // What smc_hid_open reaches in a process whose OSTREL_SMC is unset.
    csmc::ProcessMachine machine{ostrel::test::allTransports(env), "", root.path() + "/sys",
                                 &realFiles()};

    void chip(const std::string &hwmon, const std::string &name,
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
    }
};

TEST_F(HwmonTree, NamesChipsByWordAndLabelInNumericOrderSkippingApplesmc) {
    chip("hwmon10", "nvme", {{1, "Composite", "38850"}});
    chip("hwmon2", "coretemp",
         {{1, "Package id 0", "52000"}, {10, "Core 8", "50000"}, {2, "Core 0", "49000"}});
    chip("hwmon3", "applesmc", {{1, "TC0P", "60000"}});
    chip("hwmon4", "amdgpu", {{1, "edge", "41000"}, {2, "", "garbage"}});
    chip("hwmon5", "acpitz", {{1, "", "0"}});
    Handle h{csmc::openHid(csmc::selectedServices(machine))};
    ASSERT_EQ(smc_hid_count(h.hid), 7);
    EXPECT_EQ(h.read(16), (std::vector<std::pair<std::string, double>>{{"CPU Package id 0", 52.0},
                                                                       {"CPU Core 0", 49.0},
                                                                       {"CPU Core 8", 50.0},
                                                                       {"GPU edge", 41.0},
                                                                       {"SSD Composite", 38.85}}))
        << "garbage and 0 readings are skipped";
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

TEST_F(HwmonTree, ReadingStopsOnceTheCapacityIsFilled) {
    chip("hwmon0", "coretemp",
         {{1, "", "0"}, {2, "", "41000"}, {3, "", "42000"}, {4, "", "43000"}, {5, "", "44000"}});
    CountingFiles files;
    Handle h{csmc::openHid(csmc::hwmonServices(root.path() + "/sys", files))};
    EXPECT_EQ(h.read(2), (std::vector<std::pair<std::string, double>>{{"CPU temp2", 41.0},
                                                                      {"CPU temp3", 42.0}}));
    EXPECT_EQ(files.inputReads, 3) << "the implausible first one, then two";
}

TEST_F(HwmonTree, NoHwmonDirectoryMeansNoHandle) {
    EXPECT_EQ(csmc::openHid(csmc::selectedServices(machine)), nullptr);
}

TEST_F(HwmonTree, ASelectedVirtualMacBringsItsOwnList) {
    chip("hwmon2", "coretemp", {{1, "Package id 0", "52000"}});
    machine.selector = "memory:macbookpro18-2";
    Handle h{csmc::openHid(csmc::selectedServices(machine))};
    ASSERT_GT(smc_hid_count(h.hid), 1);
    EXPECT_EQ(h.read(1)[0].first, "pACC MTR Temp Sensor0");
}

// A virtual Mac's transport whose sensor list a test controls.
class SensorTransport final : public csmc::Transport {
  public:
    explicit SensorTransport(std::vector<csmc::TemperatureSensor> *list) : list_(list) {}
    std::uint32_t exchange(const smc_param &, smc_param &) override { return SMC_KERN_ERROR; }
    std::optional<std::vector<csmc::TemperatureSensor>> temperatureSensors() override {
        if (list_ == nullptr) {
            return std::nullopt;  // real hardware: no list
        }
        return *list_;
    }

  private:
    std::vector<csmc::TemperatureSensor> *list_;
};

TEST(VirtualSensors, NamesAreFixedAtOpeningAndValuesFollowByName) {
    std::vector<csmc::TemperatureSensor> list = {{"PMU tdie1", 40}, {"NAND CH0 temp", 35}};
    Handle h{csmc::openHid(csmc::transportServices(std::make_unique<SensorTransport>(&list)))};
    ASSERT_EQ(smc_hid_count(h.hid), 2);
    list = {{"new one", 70}, {"NAND CH0 temp", 36}};
    EXPECT_EQ(h.read(4), (std::vector<std::pair<std::string, double>>{{"NAND CH0 temp", 36}}));
    EXPECT_EQ(csmc::transportServices(std::make_unique<SensorTransport>(nullptr)), nullptr);
}

}  // namespace
