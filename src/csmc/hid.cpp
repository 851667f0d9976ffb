// Temperature-sensor services: hwmon on Linux, or a virtual Mac's sensor list.

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>

#include "csmc/hid.h"

struct smc_hid {
    std::unique_ptr<csmc::TemperatureServices> services;
    std::int32_t count = 0;
    std::vector<std::array<char, 64>> names;
};

namespace csmc {

namespace {

// A reading is plausible above 0 and up to 150 degrees Celsius.
bool plausible(double celsius) {
    return celsius > 0.0 && celsius <= 150.0;
}

std::string trimmed(std::string text) {
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && blank(text.back())) {
        text.pop_back();
    }
    std::size_t start = 0;
    while (start < text.size() && blank(text[start])) {
        ++start;
    }
    return text.substr(start);
}

// The number in a "hwmonN" or "tempN_input" name, for numeric ordering.
std::optional<unsigned> numberIn(const std::string &name, std::size_t from, std::size_t to) {
    unsigned n = 0;
    auto [end, ec] = std::from_chars(name.data() + from, name.data() + to, n);
    if (ec != std::errc() || end != name.data() + to || from == to) {
        return std::nullopt;
    }
    return n;
}

// Writes `name` into a 64-byte buffer. A name that does not fit is cut at a character
// boundary so the buffer always holds valid UTF-8.
void storeName(std::array<char, 64> &buffer, const std::string &name) {
    std::size_t length = std::min<std::size_t>(name.size(), buffer.size() - 1);
    while (length > 0 && length < name.size() &&
           (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80) {
        --length;  // do not split a multi-byte character
    }
    buffer.fill('\0');
    std::memcpy(buffer.data(), name.data(), length);
}

class HwmonServices final : public TemperatureServices {
  public:
    HwmonServices(const std::string &sysfs, const ostrel::platform::Files &files) : files_(files) {
        std::string classDir = sysfs + "/class/hwmon";
        auto chips = files.list(classDir);
        if (!chips) {
            return;
        }
        std::map<unsigned, std::string> ordered;  // hwmon10 after hwmon9
        for (const std::string &chip : *chips) {
            if (chip.starts_with("hwmon")) {
                if (auto n = numberIn(chip, 5, chip.size())) {
                    ordered.emplace(*n, classDir + "/" + chip);
                }
            }
        }
        for (const auto &[n, dir] : ordered) {
            addChip(dir);
        }
    }

    std::vector<std::string> names() override { return names_; }
    bool chipServices() const override { return chipServices_; }

    void read(const std::function<bool(std::size_t, std::optional<double>)> &take) override {
        for (std::size_t i = 0; i < inputs_.size(); ++i) {
            std::optional<double> value;
            if (auto text = files_.read(inputs_[i])) {
                std::string number = trimmed(*text);
                long long millis = 0;
                auto [end, ec] =
                    std::from_chars(number.data(), number.data() + number.size(), millis);
                if (ec == std::errc() && end == number.data() + number.size() && !number.empty()) {
                    value = static_cast<double>(millis) / 1000.0;
                }
            }
            if (!take(i, value)) {
                return;
            }
        }
    }

  private:
    void addChip(const std::string &dir) {
        auto chip = files_.read(dir + "/name");
        if (!chip) {
            return;
        }
        std::string chipName = trimmed(*chip);
        if (chipName == "applesmc") {
            return;  // the SMC's own keys are read through the channel
        }
        auto entries = files_.list(dir);
        if (!entries) {
            return;
        }
        std::map<unsigned, std::string> inputs;  // temp10 after temp9
        for (const std::string &entry : *entries) {
            constexpr std::string_view kSuffix = "_input";
            if (entry.starts_with("temp") && entry.ends_with(kSuffix)) {
                if (auto n = numberIn(entry, 4, entry.size() - kSuffix.size())) {
                    inputs.emplace(*n, entry);
                }
            }
        }
        std::string word = hwmonChipWord(chipName);
        chipServices_ = chipServices_ || (chipName == "macsmc_hwmon" && !inputs.empty());
        for (const auto &[n, entry] : inputs) {
            auto label = files_.read(dir + "/temp" + std::to_string(n) + "_label");
            std::string text = label ? trimmed(*label) : "";
            names_.push_back(word + " " + (text.empty() ? "temp" + std::to_string(n) : text));
            inputs_.push_back(dir + "/" + entry);
        }
    }

    const ostrel::platform::Files &files_;
    std::vector<std::string> names_;
    std::vector<std::string> inputs_;
    bool chipServices_ = false;
};

class VirtualServices final : public TemperatureServices {
  public:
    // Reads through `transport`, which it owns when `owned` holds it and otherwise borrows
    // (the transport of an open connection that outlives these services).
    VirtualServices(std::unique_ptr<Transport> owned, Transport &transport,
                    std::vector<TemperatureSensor> sensors)
        : owned_(std::move(owned)), transport_(transport) {
        for (TemperatureSensor &sensor : sensors) {
            names_.push_back(std::move(sensor.name));
        }
    }

    std::vector<std::string> names() override { return names_; }
    bool chipServices() const override { return true; }

    // The list is matched to the names fixed at opening by position while it has the same
    // length, and by name otherwise (a sensor that came or went since). One call fetches
    // the whole list, so stopping early saves nothing but the matching.
    void read(const std::function<bool(std::size_t, std::optional<double>)> &take) override {
        auto sensors = transport_.temperatureSensors();
        if (!sensors) {
            return;
        }
        bool aligned = sensors->size() == names_.size();
        for (std::size_t i = 0; aligned && i < names_.size(); ++i) {
            aligned = (*sensors)[i].name == names_[i];
        }
        for (std::size_t i = 0; i < names_.size(); ++i) {
            std::optional<double> value;
            if (aligned) {
                value = (*sensors)[i].celsius;
            } else {
                for (const TemperatureSensor &sensor : *sensors) {
                    if (sensor.name == names_[i]) {
                        value = sensor.celsius;
                        break;
                    }
                }
            }
            if (!take(i, value)) {
                return;
            }
        }
    }

  private:
    std::unique_ptr<Transport> owned_;
    Transport &transport_;
    std::vector<std::string> names_;
};

}  // namespace

std::string hwmonChipWord(const std::string &chip) {
    static const std::map<std::string, std::string, std::less<>> kWords = {
        {"coretemp", "CPU"},  {"k10temp", "CPU"},     {"k8temp", "CPU"},
        {"zenpower", "CPU"},  {"via_cputemp", "CPU"}, {"amdgpu", "GPU"},
        {"radeon", "GPU"},    {"nouveau", "GPU"},     {"nvme", "SSD"},
        {"drivetemp", "SSD"}, {"acpitz", "ACPI"},     {"macsmc_hwmon", "SMC"},
        {"iwlwifi", "Wi-Fi"}, {"iwlwifi_1", "Wi-Fi"}, {"battery", "Battery"},
    };
    auto it = kWords.find(chip);
    if (it != kWords.end()) {
        return it->second;
    }
    if (chip.starts_with("pch_")) {
        return "PCH";
    }
    if (chip.starts_with("BAT")) {
        return "Battery";
    }
    return chip;
}

std::unique_ptr<TemperatureServices> hwmonServices(const std::string &sysfs,
                                                   const ostrel::platform::Files &files) {
    return std::make_unique<HwmonServices>(sysfs, files);
}

std::unique_ptr<TemperatureServices> transportServices(std::unique_ptr<Transport> transport) {
    auto sensors = transport->temperatureSensors();
    if (!sensors) {
        return nullptr;
    }
    Transport &borrowed = *transport;
    return std::make_unique<VirtualServices>(std::move(transport), borrowed, std::move(*sensors));
}

std::unique_ptr<TemperatureServices> connectionServices(smc_conn *conn, const std::string &sysfs,
                                                        const ostrel::platform::Files &files) {
    Transport &transport = transportOf(conn);
    if (auto sensors = transport.temperatureSensors()) {
        return std::make_unique<VirtualServices>(nullptr, transport, std::move(*sensors));
    }
    return hwmonServices(sysfs, files);
}

std::unique_ptr<TemperatureServices> selectedServices(const ProcessMachine &machine) {
    if (!machine.selector.empty()) {
        OpenedTransport opened = machine.transports->open(machine.selector);
        if (opened.status != SMC_OK) {
            return nullptr;
        }
        // A transport without a sensor list is real hardware: fall through to hwmon.
        if (opened.transport->temperatureSensors()) {
            return transportServices(std::move(opened.transport));
        }
    }
    return hwmonServices(machine.sysfs, *machine.files);
}

smc_hid *openHid(std::unique_ptr<TemperatureServices> services) {
    if (!services) {
        return nullptr;
    }
    std::vector<std::string> names = services->names();
    if (names.empty()) {
        return nullptr;
    }
    auto *hid = new (std::nothrow) smc_hid();
    if (hid == nullptr) {
        return nullptr;
    }
    hid->services = std::move(services);
    hid->count = static_cast<std::int32_t>(names.size());
    hid->names.resize(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        std::string name = names[i];
        if (name.empty()) {
            name = "HID sensor " + std::to_string(i);
        }
        storeName(hid->names[i], name);
    }
    return hid;
}

}  // namespace csmc

extern "C" {

smc_hid *smc_hid_open(void) {
    std::shared_ptr<const csmc::ProcessMachine> machine = csmc::processMachine();
    if (!machine || !machine->transports || machine->files == nullptr) {
        return nullptr;
    }
    return csmc::openHid(csmc::selectedServices(*machine));
}

int32_t smc_hid_count(const smc_hid *hid) {
    return hid == nullptr ? 0 : hid->count;
}

int32_t smc_hid_read(smc_hid *hid, smc_hid_reading *out, int32_t capacity) {
    if (hid == nullptr || hid->count < 1 || capacity < 1) {
        return 0;
    }
    struct Fill {
        smc_hid *hid;
        smc_hid_reading *out;
        std::int32_t capacity;
        std::int32_t written;
    } fill{hid, out, capacity, 0};
    // One pointer captured: the callback fits std::function's own storage, no allocation.
    hid->services->read([f = &fill](std::size_t i, std::optional<double> celsius) {
        if (i < f->hid->names.size() && celsius && csmc::plausible(*celsius)) {
            std::memcpy(f->out[f->written].name, f->hid->names[i].data(),
                        sizeof f->out[f->written].name);
            f->out[f->written].celsius = *celsius;
            ++f->written;
        }
        return f->written < f->capacity;
    });
    return fill.written;
}

void smc_hid_close(smc_hid *hid) {
    delete hid;
}

}  // extern "C"
