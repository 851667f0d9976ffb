// `ostrel sensors`, `fans`, `battery` and `discovery`: what the machine measures.

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <cmath>
#include <ostream>

#include "commands.h"
#include "ostrel/number_text.h"
#include "ostrel/platform/text.h"

namespace ostrel::cli {

namespace {

std::unique_ptr<Sampler> openSampler(Context &context, SamplerScope scope, SamplerParts parts) {
    auto sampler = std::make_unique<Sampler>(context.openSmc(), scope, true, context.system);
    sampler->parts = parts;
    return sampler;
}

// A sample that lost readings to a failing connection is not the machine's whole story.
void requireWhole(const Sampler &sampler) {
    if (const std::optional<SMCError> &failure = sampler.lastFailure()) {
        throw IncompleteOutput("some readings are missing: " + failure->explanation());
    }
}

// What people who read sensors expect to be told about a fan.
enum class FanAlarm { stalled, limitsInverted };

// A fan that should turn but reads 0 rpm is stalled: under manual control with a target,
// or under the firmware on a machine whose firmware keeps its fans at least at their
// minimum. Apple-silicon firmware stops the fans when the machine is cool (`stopsAtIdle`).
std::vector<FanAlarm> alarms(const FanReading &fan, bool stopsAtIdle) {
    std::vector<FanAlarm> found;
    bool shouldTurn = fan.manual ? fan.target.value_or(0) >= 1 : !stopsAtIdle && fan.min >= 1;
    if (fan.rpm < 1 && shouldTurn) {
        found.push_back(FanAlarm::stalled);
    }
    if (fan.min > fan.max) {
        found.push_back(FanAlarm::limitsInverted);
    }
    return found;
}

const char *alarmKey(FanAlarm alarm) {
    return alarm == FanAlarm::stalled ? "stalled" : "limitsInverted";
}

const char *alarmText(FanAlarm alarm) {
    return alarm == FanAlarm::stalled ? "stalled: not turning although it should"
                                      : "impossible limits: minimum above maximum";
}

Json fansJson(const std::vector<FanReading> &fans, bool stopsAtIdle) {
    Json list = Json::array();
    for (const FanReading &fan : fans) {
        list.push_back(fanJson(fan, stopsAtIdle));
    }
    return list;
}

std::string rpmText(double rpm) {
    return fmt::format("{:.0f}", rpm);
}

void printFans(std::ostream &out, const std::vector<FanReading> &fans, bool stopsAtIdle,
               std::string_view indent) {
    for (const FanReading &fan : fans) {
        fmt::print(out, "{}{}\n", indent, fanLine(fan, stopsAtIdle));
    }
}

// Temperatures to a tenth of a degree; power, voltage and current to two decimals.
std::string valueText(double value, Quantity quantity) {
    return quantity == Quantity::temperature ? fmt::format("{:.1f}", value)
                                             : fmt::format("{:.2f}", value);
}

}  // namespace

void printReadings(std::ostream &out, const std::vector<Reading> &readings, Quantity quantity) {
    for (const Reading &r : readings) {
        // Service readings carry their name as key; only SMC keys are worth a column.
        std::string key = r.key.starts_with("hid:") ? "" : r.key;
        fmt::print(out, "  {:<28} {:<4} {:>8} {}\n", text::printable(r.name), key,
                   valueText(r.value, quantity), unit(quantity));
    }
}

Json fanJson(const FanReading &fan, bool stopsAtIdle) {
    Json json = fan;
    json["alarms"] = Json::array();
    for (FanAlarm alarm : alarms(fan, stopsAtIdle)) {
        json["alarms"].push_back(alarmKey(alarm));
    }
    return json;
}

std::string fanLine(const FanReading &fan, bool stopsAtIdle) {
    std::string mode = "auto";
    if (fan.manual) {
        mode = fan.target ? fmt::format("manual, target {} rpm", rpmText(*fan.target)) : "manual";
    }
    std::string line = fmt::format("{:>2}  {:<12} {:>5} rpm  (min {}, max {}, {:.0f}%)  {}", fan.id,
                                   text::printable(fan.name), rpmText(fan.rpm), rpmText(fan.min),
                                   rpmText(fan.max), fan.load() * 100, mode);
    for (FanAlarm alarm : alarms(fan, stopsAtIdle)) {
        line += fmt::format("  [{}]", alarmText(alarm));
    }
    return line;
}

// Apple-silicon firmware stops the fans of a cool machine; the test key marks those
// machines, as it does for the failsafe's limits.
bool stopsAtIdle(const Sampler &sampler) {
    return sampler.discovery().fanTestKey;
}

void sensorsCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    // A group filter narrows the output to those temperatures; the rest would be noise,
    // in the text and the JSON alike.
    SamplerParts parts = options.groups.empty()
                             ? SamplerParts{SamplerParts::temperatures, SamplerParts::power,
                                            SamplerParts::electrical, SamplerParts::fans}
                             : SamplerParts::temperatures;
    auto sampler = openSampler(context, options.scope, parts);
    if (!options.groups.empty()) {
        sampler->groups = options.groups;
    }
    Snapshot snapshot = sampler->sample();
    if (options.json) {
        Json json = snapshot;
        json["fans"] = fansJson(snapshot.fans(), stopsAtIdle(*sampler));
        printJson(out, json);
        requireWhole(*sampler);
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
    for (auto [title, readings, quantity] :
         {std::tuple{"Power", &snapshot.power(), Quantity::power},
          std::tuple{"Voltage", &snapshot.voltages(), Quantity::voltage},
          std::tuple{"Current", &snapshot.currents(), Quantity::current}}) {
        if (!readings->empty()) {
            fmt::print(out, "{}\n", title);
            printReadings(out, *readings, quantity);
        }
    }
    if (!snapshot.fans().empty()) {
        out << "Fans\n";
        printFans(out, snapshot.fans(), stopsAtIdle(*sampler), "  ");
    }
    if (snapshot.temperatures().empty() && snapshot.power().empty() &&
        snapshot.voltages().empty() && snapshot.currents().empty() && snapshot.fans().empty()) {
        out << "No sensors found.\n";
    }
    requireWhole(*sampler);
}

void fansCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    auto sampler = openSampler(context, SamplerScope::essential, SamplerParts::fans);
    std::vector<FanReading> fans = sampler->sample().fans();
    if (options.json) {
        printJson(out, fansJson(fans, stopsAtIdle(*sampler)));
    } else if (fans.empty()) {
        if (!sampler->lastFailure()) {
            out << "No fans found.\n";
        }
    } else {
        printFans(out, fans, stopsAtIdle(*sampler), "");
    }
    requireWhole(*sampler);
}

void batteryCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    auto sampler = openSampler(context, SamplerScope::essential, SamplerParts::battery);
    std::optional<BatteryInfo> battery = sampler->sample().battery();
    if (options.json) {
        printJson(out, battery ? Json(*battery) : Json());
        requireWhole(*sampler);
        return;
    }
    if (!battery) {
        out << "No battery.\n";
        requireWhole(*sampler);
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
    requireWhole(*sampler);
}

void discoveryCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    std::shared_ptr<SMC> smc = context.openSmc();
    if (options.refresh) {
        clearCache(context.system);
    }
    Discovery d = loadDiscovery(*smc, true, context.system);
    if (options.json) {
        Json json = d;
        // Fans are "id" wherever ostrel prints them.
        for (Json &fan : json["fans"]) {
            Json renamed{{"id", fan["index"]}};
            fan.erase("index");
            renamed.update(fan);
            fan = std::move(renamed);
        }
        printJson(out, json);
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
    line("Model", d.model.empty() ? "unknown" : text::printable(d.model));
    line("SMC keys", std::to_string(d.keyCount));
    line("Sensors", fmt::format("{} ({} known, {} essential)", d.sensors.size(), known, essential));
    line("Fans", std::to_string(d.fans.size()));
    for (const FanDescriptor &f : d.fans) {
        fmt::print(out, "  {:>2}  {}{}\n", f.index, text::printable(f.name),
                   f.hasModeKey ? " (mode key " + f.modeKey().description() + ")" : "");
    }
    line("Fan control", control);
    line("Temperature services", d.hid ? "yes" : "none");
    line("Cache file", text::printable(cachePath(context.system)));
}

}  // namespace ostrel::cli
