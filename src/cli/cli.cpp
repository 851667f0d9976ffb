// Argument parsing and dispatch for `ostrel`; the commands live in *_command(s).cpp.

#include "cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>

#include "commands.h"
#include "ostrel/fan_policy.h"
#include "ostrel/platform/text.h"
#include "ostrel/version.h"

namespace ostrel::cli {

namespace {

// Group names as shown ("CPU", "Storage"), accepted in any case on the command line.
std::set<SensorGroup> parseGroups(const std::vector<std::string> &names) {
    std::set<SensorGroup> groups;
    for (const std::string &name : names) {
        bool found = false;
        for (SensorGroup group : allSensorGroups) {
            std::string raw(rawValue(group));
            std::string a = name, b = raw;
            std::transform(a.begin(), a.end(), a.begin(), text::asciiLower);
            std::transform(b.begin(), b.end(), b.begin(), text::asciiLower);
            if (a == b) {
                groups.insert(group);
                found = true;
            }
        }
        if (!found) {
            throw CLI::ValidationError("--group", "'" + name +
                                                      "' is not a group (CPU, GPU, Memory, "
                                                      "Storage, Battery, Ambient, Board, Other)");
        }
    }
    return groups;
}

}  // namespace

int run(int argc, const char *const *argv, Context &context) {
    std::ostream &out = *context.out;
    std::ostream &err = *context.err;

    CLI::App app{"ostrel: fan control and sensors for Apple machines", "ostrel"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string(OstrelVersion::string), "Print the version");
    bool json = false;
    auto jsonFlag = [&](CLI::App *command, const char *help = "Print JSON") {
        return command->add_flag("--json", json, help);
    };

    SensorOptions sensorOptions;
    std::string scopeText = "known";
    std::vector<std::string> groupNames;
    CLI::App *sensors = app.add_subcommand("sensors", "Temperatures, power, voltages, currents");
    sensors
        ->add_option("--scope", scopeText,
                     "essential (the few that fan control reads), known (the sensors Ostrel "
                     "can name) or all")
        ->check(CLI::IsMember({"essential", "known", "all"}))
        ->capture_default_str();
    sensors->add_option("--group", groupNames,
                        "Only temperatures of this group: CPU, GPU, Memory, Storage, Battery, "
                        "Ambient, Board, Other (repeatable)");
    jsonFlag(sensors, "Print the snapshot as JSON");

    CLI::App *fans = app.add_subcommand("fans", "Fan speeds, limits, mode and target");
    jsonFlag(fans);
    CLI::App *battery = app.add_subcommand("battery", "Battery charge, health and power");
    jsonFlag(battery);
    bool refresh = false;
    CLI::App *discovery =
        app.add_subcommand("discovery", "What Ostrel found on this machine (cached)");
    discovery->add_flag("--refresh", refresh, "Scan again and rewrite the cache file");
    jsonFlag(discovery);

    CLI::App *smcCommand = app.add_subcommand("smc", "Raw access to the SMC key table");
    smcCommand->require_subcommand(1);
    CLI::App *keys = smcCommand->add_subcommand("keys", "List every key with its value");
    jsonFlag(keys);
    CLI::App *read = smcCommand->add_subcommand("read", "Read one key");
    std::string keyText;
    read->add_option("KEY", keyText, "The four-character key, e.g. TC0P")->required();
    jsonFlag(read);
    CLI::App *dump = smcCommand->add_subcommand(
        "dump", "Write the whole key table as a virtual Mac profile (for bug reports)");
    jsonFlag(dump, "Print JSON instead of the profile format");

    CurveOptions curveOptions;
    CLI::App *curve = app.add_subcommand(
        "curve", "Check a fan curve and show the speeds it commands (touches no fan)");
    curve
        ->add_option("TEXT", curveOptions.text,
                     "TEMP:RPM|min|max points, e.g. 50:min,70:3000,85:max, or a preset: quiet, "
                     "balanced, performance")
        ->type_name("")
        ->required();
    curve
        ->add_option("--sensor", curveOptions.sensor,
                     "The temperature that drives the curve: cpu or gpu (the hottest sensor "
                     "of that kind) or max (the hottest of all)")
        ->check(CLI::IsMember({"cpu", "gpu", "max"}))
        ->type_name("SENSOR")
        ->capture_default_str();
    CLI::Option *minOption =
        curve
            ->add_option("--min", curveOptions.min, "The fan's minimum speed in rpm (default 1200)")
            ->type_name("LO");
    CLI::Option *maxOption =
        curve
            ->add_option("--max", curveOptions.max, "The fan's maximum speed in rpm (default 6000)")
            ->type_name("HI");
    CLI::Option *atOption =
        curve
            ->add_option("--at", curveOptions.at,
                         "Show the speed at this temperature in \u00B0C (repeatable)")
            ->type_name("TEMP")
            ->allow_extra_args(false);
    CLI::Option *curveJson = jsonFlag(curve, "Print the curve policy's JSON instead");
    curveJson->excludes(atOption)->excludes(minOption)->excludes(maxOption);

    try {
        app.parse(argc, argv);
        if (sensors->parsed()) {
            sensorOptions.scope = scopeText == "essential" ? SamplerScope::essential
                                  : scopeText == "all"     ? SamplerScope::all
                                                           : SamplerScope::known;
            sensorOptions.groups = parseGroups(groupNames);
        }
    } catch (const CLI::CallForHelp &) {
        out << app.help();
        return 0;
    } catch (const CLI::CallForVersion &e) {
        out << e.what() << "\n";
        return 0;
    } catch (const CLI::ParseError &e) {
        err << "ostrel: " << e.what() << "\nRun 'ostrel --help' for usage.\n";
        return 2;
    }

    if (curve->parsed()) {
        try {
            curveCommand(curveOptions, json, out);
        } catch (const CLI::ValidationError &e) {
            err << "ostrel: " << e.what() << "\nRun 'ostrel curve --help' for usage.\n";
            return 2;
        } catch (const FanControlError &e) {
            err << "ostrel: " << e.what() << '\n';
            return 1;
        }
        return 0;
    }

    try {
        if (sensors->parsed()) {
            sensorsCommand(context, sensorOptions, json, out);
        } else if (fans->parsed()) {
            fansCommand(context, json, out);
        } else if (battery->parsed()) {
            batteryCommand(context, json, out);
        } else if (discovery->parsed()) {
            discoveryCommand(context, refresh, json, out);
        } else {
            std::shared_ptr<SMC> smc = context.openSmc();
            if (keys->parsed()) {
                smcKeys(*smc, json, out);
            } else if (read->parsed()) {
                smcRead(*smc, keyText, json, out);
            } else if (dump->parsed()) {
                smcDump(*smc, context.system, json, out);
            }
        }
    } catch (const SMCError &e) {
        err << "ostrel: " << e.what() << '\n';
        std::string detail = SMC::openDetail();
        if (!detail.empty() &&
            (e.kind() == SMCError::Kind::noService || e.kind() == SMCError::Kind::openFailed)) {
            err << "ostrel: " << detail << '\n';
        }
        return 1;
    }
    return 0;
}

}  // namespace ostrel::cli
