#include "ostrel/battery_sysfs.h"

#include <charconv>
#include <cmath>
#include <vector>

namespace ostrel {

namespace {

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

// One power-supply directory.
class Supply {
  public:
    Supply(std::string dir, const platform::Files &files) : dir_(std::move(dir)), files_(files) {}

    std::optional<std::string> text(const char *name) const {
        auto contents = files_.read(dir_ + "/" + name);
        if (!contents) {
            return std::nullopt;
        }
        return trimmed(*contents);
    }

    std::optional<long long> number(const char *name) const {
        auto value = text(name);
        long long n = 0;
        if (!value || value->empty()) {
            return std::nullopt;
        }
        auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), n);
        // Real attributes stay far below 10^15 (a battery's µWh, µV, µA); anything beyond is a
        // driver's nonsense and would overflow the unit conversions below.
        if (ec != std::errc() || end != value->data() + value->size() || n > kLargest ||
            n < -kLargest) {
            return std::nullopt;
        }
        return n;
    }

  private:
    static constexpr long long kLargest = 1'000'000'000'000'000;
    std::string dir_;
    const platform::Files &files_;
};

long long roundedDiv(long long value, long long by) {
    return static_cast<long long>(
        std::llround(static_cast<double>(value) / static_cast<double>(by)));
}

// Capacities in mAh when the driver counts charge, in mWh when it counts energy.
void addCapacities(const Supply &battery, nlohmann::json &dict) {
    for (const char *unit : {"charge", "energy"}) {
        std::string base = unit;
        auto now = battery.number((base + "_now").c_str());
        auto full = battery.number((base + "_full").c_str());
        auto design = battery.number((base + "_full_design").c_str());
        if (!full) {
            continue;
        }
        dict["FullChargeCapacity"] = roundedDiv(*full, 1000);
        if (design) {
            dict["DesignCapacity"] = roundedDiv(*design, 1000);
        }
        if (now) {
            dict["CurrentCapacity"] = roundedDiv(*now, 1000);
            dict["MaxCapacity"] = roundedDiv(*full, 1000);
        }
        break;
    }
    // The driver's own percentage is what the rest of the desktop shows; prefer it.
    if (auto percent = battery.number("capacity")) {
        dict["CurrentCapacity"] = *percent;
        dict["MaxCapacity"] = 100;
    }
}

}  // namespace

std::optional<nlohmann::json> batteryPropertiesFromSysfs(const std::string &sysfs,
                                                         const platform::Files &files) {
    std::string classDir = sysfs + "/class/power_supply";
    auto names = files.list(classDir);
    if (!names) {
        return std::nullopt;
    }
    std::optional<Supply> battery;
    bool sawExternal = false;
    bool externalOnline = false;
    for (const std::string &name : *names) {
        Supply supply(classDir + "/" + name, files);
        // Peripherals (a wireless mouse, a keyboard, a phone on USB) publish their own
        // supplies with the scope "Device"; a nearly empty mouse must not pass for the
        // machine's battery, nor a charging phone for its adapter.
        if (supply.text("scope") == "Device") {
            continue;
        }
        std::string type = supply.text("type").value_or("");
        if (type == "Battery") {
            if (!battery && supply.number("present").value_or(1) != 0) {
                battery.emplace(supply);
            }
        } else if (!type.empty()) {
            sawExternal = true;
            externalOnline = externalOnline || supply.number("online").value_or(0) == 1;
        }
    }
    if (!battery) {
        return std::nullopt;
    }

    nlohmann::json dict = nlohmann::json::object();
    std::string status = battery->text("status").value_or("Unknown");
    addCapacities(*battery, dict);

    auto microvolts = battery->number("voltage_now");
    if (microvolts) {
        dict["Voltage"] = roundedDiv(*microvolts, 1000);
    }
    // Many drivers report the current unsigned; the status gives its direction.
    std::optional<long long> milliamps;
    if (auto microamps = battery->number("current_now")) {
        milliamps = roundedDiv(*microamps, 1000);
    } else if (auto microwatts = battery->number("power_now");
               microwatts && microvolts && *microvolts > 0) {
        milliamps = std::llround(static_cast<double>(*microwatts) /
                                 static_cast<double>(*microvolts) * 1000.0);
    }
    if (milliamps) {
        if (status == "Discharging") {
            milliamps = -std::llabs(*milliamps);
        } else if (status == "Charging") {
            milliamps = std::llabs(*milliamps);
        }
        dict["Amperage"] = *milliamps;
    }
    if (auto decidegrees = battery->number("temp")) {
        dict["Temperature"] = *decidegrees * 10;
    }
    if (auto cycles = battery->number("cycle_count"); cycles && *cycles > 0) {
        dict["CycleCount"] = *cycles;  // 0 means the driver does not know
    }
    dict["IsCharging"] = status == "Charging";
    dict["ExternalConnected"] =
        sawExternal ? externalOnline
                    : (status == "Charging" || status == "Full" || status == "Not charging");
    return dict;
}

}  // namespace ostrel
