// `ostrel set`, `policies` and `helper ...`: the commands that talk to the daemon.

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>

#include "commands.h"
#include "ostrel/helper_constants.h"
#include "ostrel/number_text.h"
#include "ostrel/platform/text.h"
#include "ostrel/policy_coding.h"

namespace ostrel::cli {

namespace {

// How long the commands wait for the daemon in all: its own limit per request and a little
// more, so that the request's own message ("no answer within 10 s") is the one shown.
constexpr double kSetWait = 12;
constexpr double kReadWait = 4;

std::int64_t parseFan(const std::string &text) {
    if (text == "all") {
        return -1;
    }
    std::optional<std::int64_t> fan = PolicyCoding::fanIndex(text);
    if (!fan) {
        throw CLI::ValidationError("FAN", "'" + text + "' is not a fan (a fan id or all)");
    }
    return *fan;
}

std::string fanLabel(std::int64_t fan) {
    return fan < 0 ? "all fans" : fmt::format("fan {}", fan);
}

// A policy as the commands print it in JSON: its stored form and its description.
Json policyJson(const FanPolicy &policy) {
    return {{"policy", PolicyCoding::toJson(policy)}, {"description", policy.description()}};
}

}  // namespace

FanCurve curveNamed(const std::string &text, CurveSensor sensor) {
    if (const FanCurve *preset = FanCurve::preset(text)) {
        FanCurve curve = *preset;
        curve.sensor = sensor;
        return curve;
    }
    return FanCurve(text, sensor);
}

FanPolicy parsePolicy(const std::string &text, const std::optional<std::string> &sensor) {
    bool curve = FanCurve::preset(text) != nullptr || text.find(':') != std::string::npos;
    if (sensor && !curve) {
        throw CLI::ValidationError("--sensor", "applies to curves and presets only");
    }
    FanPolicy policy;
    if (curve) {
        // CLI11 has already checked the sensor against the three names.
        policy = FanPolicy::curve(curveNamed(text, *curveSensorFromRaw(sensor.value_or("cpu"))));
    } else if (text == "max") {
        policy = FanPolicy::fixed(std::numeric_limits<double>::infinity());
    } else if (text != "auto") {
        std::optional<double> rpm = readNumber(text);
        if (!rpm || std::isinf(*rpm)) {
            throw CLI::ValidationError(
                "POLICY", "'" + text +
                              "' is not a policy (auto, max, a speed in rpm, a curve such as "
                              "50:min,70:3000,85:max, or quiet, balanced, performance)");
        }
        policy = FanPolicy::fixed(*rpm);
    }
    policy.validate();
    return policy;
}

void setCommand(Context &context, const Options &options) {
    std::int64_t fan = parseFan(options.fan);
    FanPolicy policy = parsePolicy(options.policy, options.sensor);
    context.helper().blocking(kSetWait, [&](HelperClient &c) { return c.setPolicy(policy, fan); });
    if (options.json) {
        Json json = policyJson(policy);
        json["fan"] = fan;
        printJson(*context.out, json);
    } else {
        fmt::print(*context.out, "{}: {}\n", fanLabel(fan), policy.description());
    }
}

PolicyMap fetchPolicies(Context &context, double seconds) {
    return context.helper().blocking(seconds, [](HelperClient &c) { return c.policies(); });
}

void policiesCommand(Context &context, const Options &options) {
    PolicyMap policies = fetchPolicies(context, kReadWait);
    // The machine's fans, so that the ones left to the firmware are listed too; without the
    // machine, the daemon's list is all there is to print.
    std::vector<std::pair<std::int64_t, std::string>> fans;
    std::optional<std::string> missing;
    try {
        Sampler sampler(context.openSmc(), SamplerScope::essential, true, context.system);
        Snapshot snapshot = sampler.sample();
        for (const FanReading &fan : snapshot.fans()) {
            fans.emplace_back(fan.id, fan.name);
        }
        if (sampler.lastFailure()) {
            missing = sampler.lastFailure()->explanation();
        }
    } catch (const SMCError &e) {
        missing = e.explanation();
    }
    for (const auto &[index, policy] : policies) {
        if (std::none_of(fans.begin(), fans.end(), [&](auto &f) { return f.first == index; })) {
            fans.emplace_back(index, "");
        }
    }
    std::sort(fans.begin(), fans.end());
    Json list = Json::array();
    for (const auto &[index, name] : fans) {
        auto found = policies.find(index);
        FanPolicy policy = found == policies.end() ? FanPolicy() : found->second;
        if (options.json) {
            Json json{{"id", index}, {"name", name}};
            json.update(policyJson(policy));
            list.push_back(json);
        } else {
            fmt::print(*context.out, "{:>2}  {:<12} {}\n", index, text::printable(name),
                       policy.description());
        }
    }
    if (options.json) {
        printJson(*context.out, list);
    }
    if (missing) {
        throw IncompleteOutput("fans without a policy may be missing: " + *missing);
    }
}

void helperVersionCommand(Context &context, const Options &options) {
    std::string version =
        context.helper().blocking(kReadWait, [](HelperClient &c) { return c.version(); });
    if (options.json) {
        printJson(*context.out, Json{{"version", version}});
    } else {
        *context.out << text::printable(version) << '\n';
    }
}

void helperStatusCommand(Context &context, const Options &options) {
    platform::Paths paths = context.system.paths();
    bool installed = context.installer->isInstalled();
    std::optional<std::string> unit = context.installer->serviceState();
    std::optional<std::string> version, error;
    try {
        version = context.helper().blocking(kReadWait, [](HelperClient &c) { return c.version(); });
    } catch (const FanControlError &e) {
        error = e.kind() == FanControlError::Kind::helperUnavailable ? e.text() : e.what();
    }
    std::string log = HelperConstants::logFile(paths);
    if (options.json) {
        Json json{{"installed", installed},
                  {"binary", HelperConstants::installedBinary(paths)},
                  {"unit", unit ? Json(*unit) : Json()},
                  {"socket", HelperConstants::socketPath(paths)},
                  {"version", version ? Json(*version) : Json()},
                  {"log", log}};
        if (error) {
            json["error"] = *error;
        }
        printJson(*context.out, json);
    } else {
        auto line = [&](const char *label, const std::string &text) {
            fmt::print(*context.out, "{:<10} {}\n", label, text::printable(text));
        };
        line("Installed", installed ? "yes, " + HelperConstants::installedBinary(paths) : "no");
        line("Unit", unit ? *unit : "unknown (systemctl gave no state)");
        line("Daemon", version ? "version " + *version + " on " + HelperConstants::socketPath(paths)
                               : "not reachable: " + *error);
        line("Log", log);
    }
    if (error) {
        // The report stands; the status says the daemon did not answer.
        throw IncompleteOutput("the daemon did not answer: " + *error);
    }
}

void helperInstallCommand(Context &context, const Options &options) {
    std::optional<std::string> from =
        options.from ? options.from : context.installer->locateHelperBinary();
    if (!from) {
        throw FanControlError::helper(
            "no ostrel-helper found next to ostrel or where the package puts it; give its "
            "path with --from PATH");
    }
    context.installer->install(*from);
    std::string installed = HelperConstants::installedBinary(context.system.paths());
    if (options.json) {
        printJson(*context.out, Json{{"from", *from}, {"installed", installed}});
    } else {
        fmt::print(*context.out, "installed {} as {}\n", text::printable(*from), installed);
    }
}

void helperUninstallCommand(Context &context, const Options &options) {
    context.installer->uninstall();
    if (options.json) {
        printJson(*context.out, Json{{"uninstalled", true}});
    } else {
        *context.out << "uninstalled the daemon, its unit and the stored policies\n";
    }
}

}  // namespace ostrel::cli
