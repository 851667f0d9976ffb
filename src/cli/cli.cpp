// Argument parsing and dispatch for `ostrel`: a table of commands, each with its options and
// the function that runs it (in *_command(s).cpp), and one place that turns their errors
// into messages and exit statuses.

#include "cli.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <map>
#include <system_error>

#include "commands.h"
#include "ostrel/fan_policy.h"
#include "ostrel/platform/text.h"
#include "ostrel/version.h"

namespace ostrel::cli {

namespace {

// Group names as shown ("CPU", "Storage"), accepted in any case on the command line.
std::set<SensorGroup> parseGroups(const std::vector<std::string> &names) {
    auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), text::asciiLower);
        return text;
    };
    std::set<SensorGroup> groups;
    for (const std::string &name : names) {
        auto group = std::find_if(
            allSensorGroups.begin(), allSensorGroups.end(),
            [&](SensorGroup g) { return lower(name) == lower(std::string(rawValue(g))); });
        if (group == allSensorGroups.end()) {
            throw CLI::ValidationError("--group", "'" + name +
                                                      "' is not a group (CPU, GPU, Memory, "
                                                      "Storage, Battery, Ambient, Board, Other)");
        }
        groups.insert(*group);
    }
    return groups;
}

void jsonFlag(CLI::App &command, Options &options, const char *help = "Print JSON") {
    command.add_flag("--json", options.json, help);
}

void defineJson(CLI::App &command, Options &options) {
    jsonFlag(command, options);
}

void defineSensors(CLI::App &command, Options &options) {
    command
        .add_option("--scope", options.scope,
                    "essential (the few that fan control reads), known (the sensors Ostrel "
                    "can name) or all")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, SamplerScope>{{"essential", SamplerScope::essential},
                                                {"known", SamplerScope::known},
                                                {"all", SamplerScope::all}}))
        ->default_str("known");
    command.add_option_function<std::vector<std::string>>(
        "--group",
        [&options](const std::vector<std::string> &names) { options.groups = parseGroups(names); },
        "Only temperatures of this group: CPU, GPU, Memory, Storage, Battery, Ambient, Board, "
        "Other (repeatable; fans, power, voltages and currents are then left out)");
    jsonFlag(command, options, "Print the snapshot as JSON");
}

void defineDiscovery(CLI::App &command, Options &options) {
    command.add_flag("--refresh", options.refresh, "Scan again and rewrite the cache file");
    jsonFlag(command, options);
}

void defineRead(CLI::App &command, Options &options) {
    command.add_option("KEY", options.key, "The key: 1 to 4 printable ASCII characters, e.g. TC0P")
        ->required()
        ->check(CLI::Validator(
            [](std::string &text) {
                return isKeyText(text) ? std::string()
                                       : "'" + text +
                                             "' is not an SMC key (1 to 4 printable ASCII "
                                             "characters, e.g. TC0P)";
            },
            "KEY"));
    jsonFlag(command, options);
}

void defineDump(CLI::App &command, Options &options) {
    jsonFlag(command, options, "Print JSON instead of the profile format");
}

// The temperature a curve follows, for `curve` and `set`.
void sensorOption(CLI::App &command, Options &options) {
    command
        .add_option("--sensor", options.sensor,
                    "The temperature that drives the curve: cpu or gpu (the hottest sensor "
                    "of that kind) or max (the hottest of all); default cpu")
        ->check(CLI::IsMember({"cpu", "gpu", "max"}))
        ->type_name("SENSOR");
}

void defineCurve(CLI::App &command, Options &options) {
    command
        .add_option("TEXT", options.curveText,
                    "TEMP:RPM|min|max points, e.g. 50:min,70:3000,85:max, or a preset: quiet, "
                    "balanced, performance")
        ->type_name("")
        ->required();
    sensorOption(command, options);
    CLI::Option *min =
        command.add_option("--min", options.min, "The fan's minimum speed in rpm (default 1200)")
            ->type_name("LO");
    CLI::Option *max =
        command.add_option("--max", options.max, "The fan's maximum speed in rpm (default 6000)")
            ->type_name("HI");
    CLI::Option *at = command
                          .add_option("--at", options.at,
                                      "Show the speed at this temperature in \u00B0C (repeatable)")
                          ->type_name("TEMP")
                          ->allow_extra_args(false);
    command.add_flag("--json", options.json, "Print the curve policy's JSON instead")
        ->excludes(at)
        ->excludes(min)
        ->excludes(max);
}

void defineSet(CLI::App &command, Options &options) {
    command.add_option("FAN", options.fan, "A fan id (see ostrel fans), or all")->required();
    command
        .add_option("POLICY", options.policy,
                    "auto, max, a speed in rpm, a curve such as 50:min,70:3000,85:max, or a "
                    "preset: quiet, balanced, performance")
        ->required();
    sensorOption(command, options);
    jsonFlag(command, options, "Print the accepted policy as JSON");
}

void defineInstall(CLI::App &command, Options &options) {
    command.add_option("--from", options.from,
                       "The ostrel-helper to install (default: the one next to ostrel or "
                       "where the package puts it)");
    jsonFlag(command, options);
}

void defineWatch(CLI::App &command, Options &options) {
    command.add_option("--interval", options.interval, "Seconds between frames")
        ->check(CLI::Range(0.1, 3600.0))
        ->type_name("S")
        ->capture_default_str();
    command.add_option("--count", options.count, "Stop after this many frames")
        ->check(CLI::PositiveNumber)
        ->type_name("N");
    jsonFlag(command, options, "Print one JSON object per frame, one per line");
}

// One command of `ostrel`: its words ("smc read"), what it does, its options, and the
// function that runs it.
struct Command {
    const char *path;
    const char *help;
    void (*define)(CLI::App &, Options &);
    void (*run)(Context &, const Options &);
};

const Command kCommands[] = {
    {"sensors", "Temperatures by group, fans, power, voltages and currents", defineSensors,
     sensorsCommand},
    {"fans", "Fan speeds, limits, mode and target", defineJson, fansCommand},
    {"battery", "Battery charge, health and power", defineJson, batteryCommand},
    {"discovery", "What Ostrel found on this machine (cached)", defineDiscovery, discoveryCommand},
    {"smc keys", "List every key with its value", defineJson, smcKeysCommand},
    {"smc read", "Read one key", defineRead, smcReadCommand},
    {"smc dump", "Write the whole key table as a virtual Mac profile (for bug reports)", defineDump,
     smcDumpCommand},
    {"curve", "Check a fan curve and show the speeds it commands (touches no fan)", defineCurve,
     curveCommand},
    {"set", "Set a fan's policy through the daemon", defineSet, setCommand},
    {"policies", "Every fan with its policy, from the daemon", defineJson, policiesCommand},
    {"watch", "Temperatures, fans and policies, redrawn until Ctrl-C", defineWatch, watchCommand},
    {"helper version", "The daemon's version, over its socket", defineJson, helperVersionCommand},
    {"helper status", "Whether the daemon is installed, running and answering; its log", defineJson,
     helperStatusCommand},
    {"helper install", "Install the daemon and start it (asks for administrator rights)",
     defineInstall, helperInstallCommand},
    {"helper uninstall", "Stop and remove the daemon and its stored policies", defineJson,
     helperUninstallCommand},
};

// Words that only group commands.
const std::map<std::string, const char *> kGroups = {
    {"smc", "Raw access to the SMC key table: keys, read, dump"},
    {"helper", "The daemon: version, status, install, uninstall"},
};

std::vector<std::string> words(std::string_view path) {
    std::vector<std::string> out;
    while (!path.empty()) {
        std::size_t blank = path.find(' ');
        out.emplace_back(path.substr(0, blank));
        path = blank == std::string_view::npos ? "" : path.substr(blank + 1);
    }
    return out;
}

CLI::App *child(CLI::App &parent, const std::string &name) {
    for (CLI::App *sub : parent.get_subcommands([](CLI::App *) { return true; })) {
        if (sub->get_name() == name) {
            return sub;
        }
    }
    return nullptr;
}

// The command line's leading words resolved to a command or group; the words that name
// nothing (the unknown command, as typed) when they go astray.
struct Resolved {
    CLI::App *app;
    std::string path;     // the words resolved, "smc read"
    std::string unknown;  // "smc frob" when "frob" is no command of "smc"
};

Resolved resolve(CLI::App &root, const std::vector<std::string> &args) {
    Resolved r{&root, "", ""};
    for (const std::string &arg : args) {
        if (arg.starts_with("-") ||
            r.app->get_subcommands([](CLI::App *) { return true; }).empty()) {
            break;  // an option, or the first argument of a command
        }
        std::string path = r.path.empty() ? arg : r.path + " " + arg;
        CLI::App *sub = child(*r.app, arg);
        if (sub == nullptr) {
            r.unknown = path;
            break;
        }
        r.app = sub;
        r.path = path;
    }
    return r;
}

// A message for the terminal: controls escaped, but its own line breaks kept (the
// helper-unavailable message ends with a line of advice).
std::string printableLines(std::string_view message) {
    std::string out;
    for (std::size_t start = 0;;) {
        std::size_t end = message.find('\n', start);
        out += text::printable(message.substr(start, end - start));
        if (end == std::string_view::npos) {
            return out;
        }
        out += '\n';
        start = end + 1;
    }
}

int usageError(std::ostream &err, const std::string &message, const std::string &path) {
    err << "ostrel: " << text::printable(message) << "\nRun 'ostrel "
        << (path.empty() ? "" : path + " ") << "--help' for usage.\n";
    return 2;
}

// Output that did not reach its file (a full disk, a closed pipe) is output lost.
bool outputWritten(std::ostream &out, std::ostream &err) {
    errno = 0;
    out.flush();
    int error = errno;
    if (!out.fail()) {
        return true;
    }
    err << "ostrel: cannot write the output"
        << (error != 0 ? ": " + std::generic_category().message(error) : std::string()) << '\n';
    return false;
}

}  // namespace

int run(int argc, const char *const *argv, Context &context) {
    std::ostream &out = *context.out;
    std::ostream &err = *context.err;

    CLI::App app{"ostrel: fan control and sensors for Apple machines", "ostrel"};
    app.set_version_flag("--version", std::string(OstrelVersion::string), "Print the version");
    Options options;
    std::map<const CLI::App *, const Command *> commands;
    for (const Command &command : kCommands) {
        CLI::App *parent = &app;
        std::vector<std::string> path = words(command.path);
        for (std::size_t i = 0; i + 1 < path.size(); ++i) {
            CLI::App *group = child(*parent, path[i]);
            parent =
                group != nullptr ? group : parent->add_subcommand(path[i], kGroups.at(path[i]));
        }
        CLI::App *sub = parent->add_subcommand(path.back(), command.help);
        command.define(*sub, options);
        commands[sub] = &command;
    }
    app.add_subcommand("help", "Show the commands, or one command's options: help smc read")
        ->allow_extras();

    std::vector<std::string> args(argv + std::min(argc, 1), argv + argc);
    bool help = !args.empty() && args.front() == "help";
    if (help) {
        args.erase(args.begin());
    }
    Resolved resolved = resolve(app, args);
    if (!resolved.unknown.empty()) {
        return usageError(err, "unknown command '" + resolved.unknown + "'", resolved.path);
    }
    if (help) {
        out << resolved.app->help();
        return outputWritten(out, err) ? 0 : 1;
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        out << app.help();
        return outputWritten(out, err) ? 0 : 1;
    } catch (const CLI::CallForVersion &e) {
        out << e.what() << '\n';
        return outputWritten(out, err) ? 0 : 1;
    } catch (const CLI::ParseError &e) {
        return usageError(err, e.what(), resolved.path);
    }
    auto found = commands.find(resolved.app);
    if (found == commands.end()) {
        return usageError(err,
                          resolved.path.empty() ? "a command is required"
                                                : "'" + resolved.path + "' needs a command",
                          resolved.path);
    }

    int status = 0;
    try {
        found->second->run(context, options);
    } catch (const CLI::ValidationError &e) {
        return usageError(err, e.what(), resolved.path);
    } catch (const FanControlError &e) {
        err << "ostrel: " << printableLines(e.what()) << '\n';
        status = 1;
    } catch (const SMCError &e) {
        err << "ostrel: " << text::printable(e.explanation()) << '\n';
        status = 1;
    } catch (const IncompleteOutput &e) {
        err << "ostrel: " << printableLines(e.what()) << '\n';
        status = 1;
    } catch (const DecodingError &e) {
        err << "ostrel: the daemon's answer cannot be read: " << text::printable(e.what()) << '\n';
        status = 1;
    } catch (const Interrupted &e) {
        status = 128 + e.signal;
    }
    return outputWritten(out, err) ? status : 1;
}

}  // namespace ostrel::cli
