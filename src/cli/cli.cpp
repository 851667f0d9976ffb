#include "cli.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <CLI/CLI.hpp>

#include <cmath>
#include <iostream>

#include "ostrel/fan_policy.h"
#include "ostrel/machine_model.h"
#include "ostrel/number_text.h"
#include "ostrel/policy_coding.h"
#include "ostrel/vsmc/profile.h"

namespace ostrel::cli {

namespace {

Json keyJson(std::uint32_t index, const SMCKeyInfo &info, const std::optional<SMCValue> &value) {
    Json json{{"index", index}};
    Json infoJson = info;
    json.update(infoJson);
    if (value) {
        json["bytes"] = value->hex();
        json["display"] = value->display();
        if (auto number = value->doubleValue()) {
            json["value"] = *number;
        }
    }
    return json;
}

// `ostrel smc keys`: the whole key table with every value that can be read.
void smcKeys(SMC &smc, bool json, std::ostream &out) {
    std::uint32_t count = smc.keyCount();
    Json rows = Json::array();
    if (!json) {
        fmt::print(out, "{:>5}  {:<4}  {:<4}  {:>4}  {:<4}  {}\n", "INDEX", "KEY", "TYPE", "SIZE",
                   "ATTR", "VALUE");
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        FourCC key;
        SMCKeyInfo info;
        try {
            key = smc.key(i);
            info = smc.info(key);
        } catch (const SMCError &) {
            continue;  // a hole in the table: list what can be listed
        }
        std::optional<SMCValue> value;
        try {
            value = smc.read(key);
        } catch (const SMCError &) {
        }
        if (json) {
            rows.push_back(keyJson(i, info, value));
        } else {
            fmt::print(out, "{:>5}  {}  {}  {:>4}  0x{:02x}  {}\n", i, key.description(),
                       info.type.description(), info.size, info.attributes,
                       value ? value->display() : "(unreadable)");
        }
    }
    if (json) {
        out << rows.dump(2) << '\n';
    }
}

// `ostrel smc read KEY`.
void smcRead(SMC &smc, const std::string &keyText, bool json, std::ostream &out) {
    FourCC key(keyText);
    SMCKeyInfo info = smc.info(key);
    SMCValue value = smc.read(key);
    if (json) {
        Json row = keyJson(0, info, value);
        row.erase("index");
        out << row.dump(2) << '\n';
        return;
    }
    fmt::print(out, "{}  {}  {} bytes  attributes 0x{:02x}  [{}]  {}\n", key.description(),
               info.type.description(), info.size, info.attributes, value.hex(), value.display());
}

// `ostrel smc dump`: the key table in the virtual Mac's profile format, so that a real
// machine's dump can be loaded as a profile (and attached to bug reports).
void smcDump(SMC &smc, bool json, std::ostream &out) {
    std::string model = machineModel(&smc);
    std::uint32_t count = smc.keyCount();
    Json rows = Json::array();
    if (!json) {
        fmt::print(out,
                   "# SMC key table of {} ({} keys), written by 'ostrel smc dump'.\n"
                   "# Load it with OSTREL_SMC=memory:FILE or 'ostrel-vsmc --profile FILE'.\n"
                   "model {}\n",
                   model.empty() ? "an unknown model" : model, count,
                   model.empty() ? "Unknown" : model);
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        FourCC key;
        SMCKeyInfo info;
        try {
            key = smc.key(i);
            info = smc.info(key);
        } catch (const SMCError &e) {
            if (!json) {
                fmt::print(out, "# index {} skipped: {}\n", i, e.what());
            }
            continue;
        }
        vsmc::KeyEntry entry{info.key.rawValue, info.type.rawValue, info.size, info.attributes, {}};
        std::optional<SMCValue> value;
        try {
            value = smc.read(key);
            std::copy_n(value->bytes.begin(), std::min<std::size_t>(value->bytes.size(), 32),
                        entry.bytes.begin());
        } catch (const SMCError &e) {
            if (!json) {
                fmt::print(out, "# {} could not be read ({}); its value is left zero\n",
                           vsmc::codeToken(info.key.rawValue), e.what());
            }
        }
        if (json) {
            rows.push_back(keyJson(i, info, value));
        } else {
            out << vsmc::formatKeyRow(entry);
        }
    }
    if (json) {
        out << Json{{"model", model}, {"keys", rows}}.dump(2) << '\n';
    }
}

// Fan limits for `ostrel curve` when none are given: a typical notebook fan.
constexpr double kDefaultMinRpm = 1200;
constexpr double kDefaultMaxRpm = 6000;

// A number option read the way curve text reads numbers; a usage error when it does not
// read as a finite number.
double numberOption(const std::string &option, const std::string &text) {
    std::optional<double> value = readNumber(text);
    if (!value || !std::isfinite(*value)) {
        throw CLI::ValidationError(option, "'" + text + "' is not a number");
    }
    return *value;
}

struct CurveOptions {
    std::string text;
    std::string sensor = "cpu";
    std::optional<std::string> min, max;
    std::vector<std::string> at;
};

// `ostrel curve`: parses and shows a curve, and what it commands, without touching a fan.
void curveCommand(const CurveOptions &options, bool json, std::ostream &out) {
    // CLI11 has already checked the sensor against the three names.
    CurveSensor sensor = *curveSensorFromRaw(options.sensor);
    double lo = options.min ? numberOption("--min", *options.min) : kDefaultMinRpm;
    double hi = options.max ? numberOption("--max", *options.max) : kDefaultMaxRpm;
    std::vector<double> temperatures;
    for (const std::string &text : options.at) {
        temperatures.push_back(numberOption("--at", text));
    }
    FanCurve curve;
    if (const FanCurve *preset = FanCurve::preset(options.text)) {
        curve = *preset;
        curve.sensor = sensor;
    } else {
        curve = FanCurve(options.text, sensor);
    }
    if (json) {
        out << PolicyCoding::encode(FanPolicy::curve(curve)) << '\n';
        return;
    }
    out << curve.description() << '\n';
    for (double temperature : temperatures) {
        // Fans are driven in whole rpm; the fraction of an interpolated speed is noise.
        fmt::print(out, "{} \u00B0C: {} rpm\n", numberText(temperature),
                   numberText(std::round(curve.rpm(temperature, lo, hi))));
    }
}

}  // namespace

Context defaultContext() {
    return {&std::cout, &std::cerr, [] { return std::make_shared<SMC>(); }};
}

int run(int argc, const char *const *argv, Context &context) {
    std::ostream &out = *context.out;
    std::ostream &err = *context.err;

    CLI::App app{"ostrel: fan control and sensors for Apple machines", "ostrel"};
    app.require_subcommand(1);
    bool json = false;

    CLI::App *smcCommand = app.add_subcommand("smc", "Raw access to the SMC key table");
    smcCommand->require_subcommand(1);
    CLI::App *keys = smcCommand->add_subcommand("keys", "List every key with its value");
    keys->add_flag("--json", json, "Print JSON");
    CLI::App *read = smcCommand->add_subcommand("read", "Read one key");
    std::string keyText;
    read->add_option("KEY", keyText, "The four-character key, e.g. TC0P")->required();
    read->add_flag("--json", json, "Print JSON");
    CLI::App *dump = smcCommand->add_subcommand(
        "dump", "Write the whole key table as a virtual Mac profile (for bug reports)");
    dump->add_flag("--json", json, "Print JSON instead of the profile format");

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
    CLI::Option *curveJson =
        curve->add_flag("--json", json, "Print the curve policy's JSON instead");
    curveJson->excludes(atOption)->excludes(minOption)->excludes(maxOption);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        out << app.help();
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
        std::shared_ptr<SMC> smc = context.openSmc();
        if (keys->parsed()) {
            smcKeys(*smc, json, out);
        } else if (read->parsed()) {
            smcRead(*smc, keyText, json, out);
        } else if (dump->parsed()) {
            smcDump(*smc, json, out);
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
