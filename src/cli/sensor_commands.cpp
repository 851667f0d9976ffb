// `ostrel sensors`, `fans`, `battery` and `discovery`: what the machine measures.

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <cmath>
#include <ostream>

#include "commands.h"
#include "ostrel/number_text.h"

namespace ostrel::cli {

namespace {

std::unique_ptr<Sampler> openSampler(Context &context, SamplerScope scope) {
    return std::make_unique<Sampler>(context.openSmc(), scope, true, context.system);
}

// Temperatures to a tenth of a degree; power, voltage and current to two decimals.
std::string valueText(double value, Quantity quantity) {
    return quantity == Quantity::temperature ? fmt::format("{:.1f}", value)
                                             : fmt::format("{:.2f}", value);
}

void printReadings(std::ostream &out, const std::vector<Reading> &readings, Quantity quantity) {
    for (const Reading &r : readings) {
        // Service readings carry their name as key; only SMC keys are worth a column.
        std::string key = r.key.starts_with("hid:") ? "" : r.key;
        fmt::print(out, "  {:<28} {:<4} {:>8} {}\n", r.name, key, valueText(r.value, quantity),
                   unit(quantity));
    }
}

std::string rpmText(double rpm) {
    return fmt::format("{:.0f}", rpm);
}

}  // namespace

void sensorsCommand(Context &context, const SensorOptions &options, bool json, std::ostream &out) {
    auto sampler = openSampler(context, options.scope);
    sampler->parts = {SamplerParts::temperatures, SamplerParts::power, SamplerParts::electrical};
    if (!options.groups.empty()) {
        sampler->groups = options.groups;
    }
    Snapshot snapshot = sampler->sample();
    if (json) {
        out << Json(snapshot).dump(2) << '\n';
        return;
    }
    for (SensorGroup group : allSensorGroups) {
        std::vector<Reading> readings;
        for (const Reading &r : snapshot.temperatures()) {
            if (r.group == group) {
                readings.push_back(r);
            }
        }
        if (!readings.empty()) {
            fmt::print(out, "{}\n", rawValue(group));
            printReadings(out, readings, Quantity::temperature);
        }
    }
    // Groups narrow temperatures only; with a group filter the rest would be noise.
    if (options.groups.empty()) {
        for (auto [title, readings, quantity] :
             {std::tuple{"Power", &snapshot.power(), Quantity::power},
              std::tuple{"Voltage", &snapshot.voltages(), Quantity::voltage},
              std::tuple{"Current", &snapshot.currents(), Quantity::current}}) {
            if (!readings->empty()) {
                fmt::print(out, "{}\n", title);
                printReadings(out, *readings, quantity);
            }
        }
    }
    if (snapshot.temperatures().empty() && snapshot.power().empty() &&
        snapshot.voltages().empty() && snapshot.currents().empty()) {
        out << "No sensors found.\n";
    }
}

void fansCommand(Context &context, bool json, std::ostream &out) {
    auto sampler = openSampler(context, SamplerScope::essential);
    sampler->parts = SamplerParts::fans;
    std::vector<FanReading> fans = sampler->sample().fans();
    if (json) {
        out << Json(fans).dump(2) << '\n';
        return;
    }
    if (fans.empty()) {
        out << "No fans found.\n";
        return;
    }
    for (const FanReading &fan : fans) {
        std::string mode = "auto";
        if (fan.manual) {
            mode =
                fan.target ? fmt::format("manual, target {} rpm", rpmText(*fan.target)) : "manual";
        }
        fmt::print(out, "{:>2}  {:<12} {:>5} rpm  (min {}, max {}, {:.0f}%)  {}\n", fan.id,
                   fan.name, rpmText(fan.rpm), rpmText(fan.min), rpmText(fan.max), fan.load() * 100,
                   mode);
    }
}

void batteryCommand(Context &context, bool json, std::ostream &out) {
    auto sampler = openSampler(context, SamplerScope::essential);
    sampler->parts = SamplerParts::battery;
    std::optional<BatteryInfo> battery = sampler->sample().battery();
    if (json) {
        out << (battery ? Json(*battery) : Json()).dump(2) << '\n';
        return;
    }
    if (!battery) {
        out << "No battery.\n";
        return;
    }
    auto line = [&](const char *label, const std::string &text) {
        fmt::print(out, "{:<15} {}\n", label, text);
    };
    if (battery->percent) {
        line("Charge", fmt::format("{:.0f}%", *battery->percent));
    }
    if (battery->health) {
        line("Health", fmt::format("{:.0f}% of design capacity", *battery->health * 100));
    }
    if (battery->temperature) {
        line("Temperature",
             fmt::format("{:.1f} {}", *battery->temperature, unit(Quantity::temperature)));
    }
    if (battery->voltage) {
        line("Voltage", fmt::format("{:.2f} V", *battery->voltage));
    }
    if (battery->amperage) {
        line("Current", fmt::format("{:.2f} A", *battery->amperage));
    }
    if (auto power = battery->power()) {
        line("Power", fmt::format("{:.2f} W", *power));
    }
    if (battery->cycleCount) {
        line("Cycles", std::to_string(*battery->cycleCount));
    }
    line("Charging", battery->charging ? "yes" : "no");
    line("External power", battery->externalPower ? "yes" : "no");
}

void discoveryCommand(Context &context, bool refresh, bool json, std::ostream &out) {
    std::shared_ptr<SMC> smc = context.openSmc();
    if (refresh) {
        clearCache(context.system);
    }
    Discovery d = loadDiscovery(*smc, true, context.system);
    if (json) {
        out << Json(d).dump(2) << '\n';
        return;
    }
    std::size_t known = 0, essential = 0;
    for (const SensorDescriptor &s : d.sensors) {
        known += s.known;
        essential += s.essential;
    }
    std::string control = d.fanTestKey    ? "mode keys unlocked by the test key (Ftst)"
                          : d.fanForceKey ? "force mask (FS! )"
                                          : "mode keys";
    bool anyModeKey = false;
    for (const FanDescriptor &f : d.fans) {
        anyModeKey = anyModeKey || f.hasModeKey;
    }
    if (!d.fanTestKey && !d.fanForceKey && !anyModeKey) {
        control = "none found";
    }
    auto line = [&](const char *label, const std::string &text) {
        fmt::print(out, "{:<21} {}\n", label, text);
    };
    line("Model", d.model.empty() ? "unknown" : d.model);
    line("SMC keys", std::to_string(d.keyCount));
    line("Sensors", fmt::format("{} ({} known, {} essential)", d.sensors.size(), known, essential));
    line("Fans", std::to_string(d.fans.size()));
    for (const FanDescriptor &f : d.fans) {
        fmt::print(out, "  {:>2}  {}{}\n", f.index, f.name,
                   f.hasModeKey ? " (mode key " + f.modeKey().description() + ")" : "");
    }
    line("Fan control", control);
    line("Temperature services", d.hid ? "yes" : "none");
    line("Cache file", cachePath(context.system));
}

}  // namespace ostrel::cli
