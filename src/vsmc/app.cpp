#include "app.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <asio.hpp>
#include <cmath>
#include <csignal>

#include "csmc/vsmc_transport.h"
#include "ostrel/platform/paths.h"
#include "ostrel/vsmc/server.h"
#include "ostrel/vsmc/virtual_mac.h"

namespace ostrel::vsmc::app {

namespace {

// A failure to report on standard error with exit status 1.
struct Failure {
    std::string message;
};

// A usage error found after parsing, reported with exit status 2.
struct Usage {
    std::string message;
};

std::uint32_t parseCode(const std::string &text, const char *what, std::uint64_t max) {
    std::size_t used = 0;
    std::uint64_t value = 0;
    try {
        value = std::stoull(text, &used, 0);
    } catch (const std::exception &) {
        used = 0;
    }
    if (used == 0 || used != text.size() || value > max) {
        throw Usage{fmt::format("{}: '{}' is not a number up to {:#x}", what, text, max)};
    }
    return static_cast<std::uint32_t>(value);
}

std::string readFile(const Context &context, const std::string &path, const char *what) {
    auto text = context.files->read(path);
    if (!text) {
        throw Failure{fmt::format("cannot read the {} {}", what, path)};
    }
    return *text;
}

// --- serving ---

struct ServeOptions {
    std::string profile;
    std::string socket;
    double speed = 1;
    std::uint64_t seed = 0;
    std::string scenario;
};

int serve(const ServeOptions &options, const std::string &socket, Context &context) {
    Profile profile;
    try {
        profile = loadProfile(options.profile, *context.files);
    } catch (const ProfileError &e) {
        throw Failure{e.what()};
    }
    VirtualMac mac(profile, options.seed, options.speed);
    if (!options.scenario.empty()) {
        try {
            mac.machine().play(
                parseScenario(readFile(context, options.scenario, "scenario"), options.scenario));
        } catch (const ScenarioError &e) {
            throw Failure{e.what()};
        }
    }

    asio::io_context io;
    std::optional<Server> server;
    try {
        server.emplace(io, mac, socket, *context.files, *context.clock);
    } catch (const platform::UnixServerError &e) {
        throw Failure{e.inUse() ? "a virtual Mac is already serving " + socket : e.what()};
    }
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](const asio::error_code &ec, int) {
        if (!ec) {
            server->stop();
        }
    });
    fmt::print(*context.out, "ostrel-vsmc: {} ({}) on {}, speed {}\n", mac.machine().model(),
               profile.source, socket, options.speed);
    context.out->flush();
    io.run();
    return 0;
}

// --- ctl ---

// A member's number, or nothing when it is missing or not a number (a machine whose
// state went bad still gets a report rather than a crash).
std::optional<double> number(const Json &object, const char *name) {
    auto it = object.find(name);
    if (it == object.end() || !it->is_number()) {
        return std::nullopt;
    }
    return it->get<double>();
}

std::string shown(std::optional<double> value, const char *format, const char *missing = "-") {
    return value && std::isfinite(*value) ? fmt::format(fmt::runtime(format), *value) : missing;
}

std::string text(const Json &object, const char *name) {
    auto it = object.find(name);
    return it != object.end() && it->is_string() ? it->get<std::string>() : "?";
}

bool flag(const Json &object, const char *name) {
    auto it = object.find(name);
    return it != object.end() && it->is_boolean() && it->get<bool>();
}

const Json &child(const Json &object, const char *name) {
    static const Json none = Json::object();
    auto it = object.find(name);
    return it != object.end() && it->is_object() ? *it : none;
}

void printStatus(const Json &s, std::ostream &out) {
    const Json &load = child(s, "load");
    fmt::print(out, "{}  t={} s  speed {}  load cpu {} gpu {}  ambient {} °C  {}\n",
               text(s, "model"), shown(number(s, "time"), "{:.1f}"),
               shown(number(s, "speed"), "{}"), shown(number(load, "cpu"), "{:.2f}"),
               shown(number(load, "gpu"), "{:.2f}"), shown(number(s, "ambient"), "{:.1f}"),
               flag(s, "externalPower") ? "adapter" : "battery");
    std::string temps;
    for (const auto &[name, value] : child(s, "temperatures").items()) {
        temps += fmt::format(
            "  {} {}", name,
            shown(value.is_number() ? std::optional(value.get<double>()) : std::nullopt, "{:.1f}"));
    }
    fmt::print(out, "temperatures{} °C\n", temps);
    const Json &power = child(s, "power");
    fmt::print(out, "power         cpu {} W  gpu {} W  system {} W\n",
               shown(number(power, "cpu"), "{:.1f}"), shown(number(power, "gpu"), "{:.1f}"),
               shown(number(power, "system"), "{:.1f}"));
    auto fans = s.find("fans");
    for (const Json &fan : fans != s.end() && fans->is_array() ? *fans : Json::array()) {
        auto rpm = [&](const char *name) { return shown(number(fan, name), "{:.0f}", "?"); };
        fmt::print(out, "fan {}         {:<6}  target {:>5}  actual {:>5} rpm  ({}-{}){}\n",
                   shown(number(fan, "index"), "{}", "?"), text(fan, "mode"), rpm("target"),
                   rpm("actual"), rpm("min"), rpm("max"), flag(fan, "stalled") ? "  STALLED" : "");
    }
    if (const Json &b = child(s, "battery"); !b.empty()) {
        std::optional<double> volts = number(b, "Voltage");
        if (volts) {
            *volts /= 1000;  // the dictionary's millivolts
        }
        fmt::print(out, "battery       {} mAh of {}  {} mA  {} V  {} cycles{}\n",
                   shown(number(b, "AppleRawCurrentCapacity"), "{}"),
                   shown(number(b, "AppleRawMaxCapacity"), "{}"),
                   shown(number(b, "Amperage"), "{:+}"), shown(volts, "{:.2f}"),
                   shown(number(b, "CycleCount"), "{}"),
                   number(b, "IsCharging") == 1 ? "  charging" : "");
    }
    if (const Json &sc = child(s, "scenario"); !sc.empty()) {
        fmt::print(out, "scenario      {}  {} s{}\n", text(sc, "source"),
                   shown(number(sc, "elapsed"), "{:.1f}"),
                   flag(sc, "finished") ? "  (finished)" : "");
    }
    fmt::print(out, "writes        {}\n", shown(number(child(s, "writes"), "count"), "{}", "?"));
}

// What the ctl commands' arguments fill.
struct CtlArgs {
    bool json = false;
    double cpu = 0;
    double gpu = -1;
    double number = 0;
    double fan = 0;
    double min = 0;
    double max = 0;
    std::string file;
    bool stop = false;
    std::string key;
    std::string power;
    std::string command;
    std::string result = "0x86";
    std::string kernel;
    std::uint32_t times = 1;
};

// One `ctl` command: its options, the call it makes, and what it prints of the reply.
struct CtlCommand {
    const char *name;
    const char *help;
    void (*options)(CLI::App &command, CtlArgs &args);
    Json (*request)(const CtlArgs &args, const Context &context);
    void (*print)(const Json &reply, const CtlArgs &args, std::ostream &out);
};

void addNumber(CLI::App &command, CtlArgs &args, const char *name, const char *help, double min,
               double max) {
    command.add_option(name, args.number, help)->required()->check(CLI::Range(min, max));
}

void addKey(CLI::App &command, CtlArgs &args) {
    command.add_option("key", args.key, "the key")->required();
}

void addFan(CLI::App &command, CtlArgs &args) {
    command.add_option("fan", args.fan, "fan index")->required();
}

void addFault(CLI::App &command, CtlArgs &args, const char *times) {
    command.add_option("--times", args.times, times)->check(CLI::Range(1u, 1000000000u));
}

Json fault(const CtlArgs &args, Json request) {
    request["times"] = args.times;
    if (!args.key.empty()) {
        request["key"] = args.key;
    }
    if (!args.command.empty()) {
        request["command"] = args.command;
    }
    if (!args.kernel.empty()) {
        request["kern"] = parseCode(args.kernel, "--kernel", 0xFFFFFFFFu);
    } else {
        request["result"] = parseCode(args.result, "--result", 0xFF);
    }
    return request;
}

Json simple(const char *call) {
    return {{"call", call}};
}

void printMember(const Json &reply, const char *name, std::ostream &out) {
    auto it = reply.find(name);
    out << (it == reply.end() ? Json() : *it).dump(2) << '\n';
}

const CtlCommand kCtlCommands[] = {
    {"status", "print the machine's true state",
     [](CLI::App &c, CtlArgs &a) {
         c.add_flag("--json", a.json, "the full state as JSON (docs/vsmc-protocol.md)");
     },
     [](const CtlArgs &, const Context &) { return simple("status"); },
     [](const Json &reply, const CtlArgs &a, std::ostream &out) {
         if (a.json) {
             printMember(reply, "status", out);
         } else {
             printStatus(child(reply, "status"), out);
         }
     }},
    {"load", "set CPU and GPU load (stops a scenario)",
     [](CLI::App &c, CtlArgs &a) {
         c.add_option("--cpu", a.cpu, "CPU load, 0 to 1")->required()->check(CLI::Range(0.0, 1.0));
         c.add_option("--gpu", a.gpu, "GPU load, 0 to 1 (default: unchanged)")
             ->check(CLI::Range(0.0, 1.0));
     },
     [](const CtlArgs &a, const Context &) {
         Json request = {{"call", "load"}, {"cpu", a.cpu}};
         if (a.gpu >= 0) {
             request["gpu"] = a.gpu;
         }
         return request;
     },
     nullptr},
    {"scenario", "play a load scenario file",
     [](CLI::App &c, CtlArgs &a) {
         c.add_option("file", a.file, "scenario file (docs/vsmc-physics.md)");
         c.add_flag("--stop", a.stop, "stop the scenario being played");
     },
     [](const CtlArgs &a, const Context &context) {
         if (a.stop == !a.file.empty()) {
             throw Usage{"scenario needs a FILE or --stop"};
         }
         return a.stop ? simple("stop-scenario")
                       : Json{{"call", "scenario"},
                              {"text", readFile(context, a.file, "scenario")},
                              {"source", a.file}};
     },
     nullptr},
    {"speed", "set simulated seconds per real second",
     [](CLI::App &c, CtlArgs &a) {
         addNumber(c, a, "value", "speed, 0 (paused) to 1000", 0, VirtualMac::kMaxSpeed);
     },
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "speed"}, {"value", a.number}};
     },
     nullptr},
    {"advance", "let simulated time pass now",
     [](CLI::App &c, CtlArgs &a) {
         addNumber(c, a, "seconds", "simulated seconds", 0, VirtualMac::kMaxAdvance);
     },
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "advance"}, {"seconds", a.number}};
     },
     nullptr},
    {"ambient", "set the room temperature",
     [](CLI::App &c, CtlArgs &a) { addNumber(c, a, "celsius", "degrees Celsius", -30, 60); },
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "ambient"}, {"celsius", a.number}};
     },
     nullptr},
    {"power", "connect or pull the power adapter",
     [](CLI::App &c, CtlArgs &a) {
         c.add_option("source", a.power, "ac or battery")
             ->required()
             ->check(CLI::IsMember({"ac", "battery"}));
     },
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "power"}, {"external", a.power == "ac"}};
     },
     nullptr},
    {"refuse", "refuse the next writes to a key (firmware error)",
     [](CLI::App &c, CtlArgs &a) {
         addKey(c, a);
         addFault(c, a, "how many writes");
         c.add_option("--result", a.result, "the result byte (default 0x86)");
     },
     [](const CtlArgs &a, const Context &) {
         return fault(a, {{"call", "fault"}, {"command", "write"}});
     },
     nullptr},
    {"fail", "fail the next matching exchanges with a firmware or kernel error",
     [](CLI::App &c, CtlArgs &a) {
         c.add_option("--key", a.key, "only exchanges for this key");
         c.add_option("--command", a.command, "only this command")
             ->check(CLI::IsMember({"read", "write", "key-info", "key-at-index"}));
         addFault(c, a, "how many exchanges");
         auto *result = c.add_option("--result", a.result, "firmware result byte, e.g. 0x82");
         c.add_option("--kernel", a.kernel, "IOKit code, e.g. 0xe00002ca")->excludes(result);
     },
     [](const CtlArgs &a, const Context &) { return fault(a, simple("fault")); }, nullptr},
    {"vanish", "take a key out of the table", addKey,
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "vanish"}, {"key", a.key}};
     },
     nullptr},
    {"restore", "put a vanished key back", addKey,
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "restore"}, {"key", a.key}};
     },
     nullptr},
    {"limits", "make a fan's limit keys read other values",
     [](CLI::App &c, CtlArgs &a) {
         addFan(c, a);
         c.add_option("min", a.min, "what F?Mn reads")->required();
         c.add_option("max", a.max, "what F?Mx reads")->required();
     },
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "limits"}, {"fan", a.fan}, {"min", a.min}, {"max", a.max}};
     },
     nullptr},
    {"stall", "stop a fan whatever it is told", addFan,
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "stall"}, {"stalled", true}, {"fan", a.fan}};
     },
     nullptr},
    {"unstall", "let a stalled fan turn again", addFan,
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "stall"}, {"stalled", false}, {"fan", a.fan}};
     },
     nullptr},
    {"takeover", "let the firmware take a fan back (automatic again)", addFan,
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "takeover"}, {"fan", a.fan}};
     },
     nullptr},
    {"sleep", "sleep and wake: every fan automatic, the test key cleared", nullptr,
     [](const CtlArgs &, const Context &) { return simple("sleep"); }, nullptr},
    {"unlock-refusals", "mode writes refused after the test key is next set",
     [](CLI::App &c, CtlArgs &a) { addNumber(c, a, "value", "refusals", 0, 1e6); },
     [](const CtlArgs &a, const Context &) {
         return Json{{"call", "unlock-refusals"}, {"value", a.number}};
     },
     nullptr},
    {"clear-faults", "drop every injected exchange fault", nullptr,
     [](const CtlArgs &, const Context &) { return simple("clear-faults"); }, nullptr},
    {"model", "print the model identifier", nullptr,
     [](const CtlArgs &, const Context &) { return simple("model"); },
     [](const Json &reply, const CtlArgs &, std::ostream &out) {
         fmt::print(out, "{}\n", text(reply, "model"));
     }},
    {"sensors", "print the temperature-sensor services as JSON", nullptr,
     [](const CtlArgs &, const Context &) { return simple("sensors"); },
     [](const Json &reply, const CtlArgs &, std::ostream &out) {
         printMember(reply, "sensors", out);
     }},
    {"battery", "print the battery dictionary as JSON", nullptr,
     [](const CtlArgs &, const Context &) { return simple("battery"); },
     [](const Json &reply, const CtlArgs &, std::ostream &out) {
         printMember(reply, "battery", out);
     }},
};

// Sends one call; the reply object on success.
Json call(const std::string &socket, const Json &request, Context &context) {
    csmc::OpenedTransport opened = csmc::VsmcTransport::open(socket, *context.clock);
    if (opened.status != SMC_OK) {
        throw Failure{opened.detail};
    }
    auto &transport = static_cast<csmc::VsmcTransport &>(*opened.transport);
    std::string error;
    auto reply = transport.callText(request.dump(), &error);
    // Parsed in order, so that `status --json` lists members as documented.
    Json parsed = reply ? Json::parse(*reply, nullptr, false) : Json();
    if (!reply || !parsed.is_object()) {
        throw Failure{"virtual Mac at " + socket + ": " +
                      (reply ? "the reply is not a JSON object" : error)};
    }
    if (!flag(parsed, "ok")) {
        auto message = parsed.find("error");
        throw Failure{message != parsed.end() && message->is_string() ? message->get<std::string>()
                                                                      : "the call failed"};
    }
    return parsed;
}

int runParsed(CLI::App &app, CLI::App &profiles, CLI::App &ctl, const ServeOptions &serveOptions,
              std::string socket, const CtlArgs &args, Context &context) {
    if (socket.empty()) {
        socket = platform::Paths(*context.environment).vsmcSocket();
    }
    if (profiles.parsed()) {
        for (const std::string &name : builtinProfileNames()) {
            fmt::print(*context.out, "{}\n", name);
        }
        return 0;
    }
    if (!ctl.parsed()) {
        if (serveOptions.profile.empty()) {
            fmt::print(*context.err, "ostrel-vsmc: --profile is required to serve\n{}", app.help());
            return 2;
        }
        return serve(serveOptions, socket, context);
    }
    for (const CtlCommand &command : kCtlCommands) {
        if (ctl.got_subcommand(command.name)) {
            Json reply = call(socket, command.request(args, context), context);
            if (command.print != nullptr) {
                command.print(reply, args, *context.out);
            }
        }
    }
    return 0;
}

}  // namespace

int run(int argc, const char *const *argv, Context &context) {
    CLI::App app(
        "The virtual Mac: a simulated SMC with fans, heat and a battery, served on a "
        "Unix socket.",
        "ostrel-vsmc");
    ServeOptions serveOptions;
    std::string socket;
    app.add_option("--profile", serveOptions.profile,
                   "built-in profile name or profile file (see: ostrel-vsmc profiles)");
    app.add_option("--socket", socket,
                   "socket to serve on (default: $OSTREL_ROOT/run/dev.ostrel.vsmc.sock)");
    app.add_option("--speed", serveOptions.speed, "simulated seconds per real second (0 pauses)")
        ->check(CLI::Range(0.0, VirtualMac::kMaxSpeed));
    app.add_option("--seed", serveOptions.seed, "seed of the sensor noise");
    app.add_option("--scenario", serveOptions.scenario,
                   "load scenario file to play from the start");

    CLI::App *profiles = app.add_subcommand("profiles", "list the built-in profiles");
    CLI::App *ctl = app.add_subcommand("ctl", "control a running virtual Mac");
    ctl->add_option("--socket", socket, "the virtual Mac's socket (default as for serving)");
    ctl->require_subcommand(1);
    CtlArgs args;
    for (const CtlCommand &command : kCtlCommands) {
        CLI::App *sub = ctl->add_subcommand(command.name, command.help);
        if (command.options != nullptr) {
            command.options(*sub, args);
        }
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e, *context.out, *context.err) == 0 ? 0 : 2;
    }
    try {
        return runParsed(app, *profiles, *ctl, serveOptions, socket, args, context);
    } catch (const Usage &u) {
        fmt::print(*context.err, "ostrel-vsmc: {}\n", u.message);
        return 2;
    } catch (const Failure &f) {
        fmt::print(*context.err, "ostrel-vsmc: {}\n", f.message);
        return 1;
    } catch (const std::exception &e) {
        fmt::print(*context.err, "ostrel-vsmc: {}\n", e.what());
        return 1;
    }
}

}  // namespace ostrel::vsmc::app
