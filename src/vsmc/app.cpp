#include "app.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <asio.hpp>
#include <csignal>
#include <iostream>

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

std::uint32_t parseCode(const std::string &text, const char *what, std::uint64_t max) {
    std::size_t used = 0;
    std::uint64_t value = 0;
    try {
        value = std::stoull(text, &used, 0);
    } catch (const std::exception &) {
        used = 0;
    }
    if (used == 0 || used != text.size() || value > max) {
        throw CLI::ValidationError(
            what, "'" + text + "' is not a number up to " + fmt::format("{:#x}", max));
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

int serve(const ServeOptions &options, Context &context) {
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
    std::string socket = options.socket.empty() ? platform::Paths(*context.environment).vsmcSocket()
                                                : options.socket;

    asio::io_context io;
    std::optional<Server> server;
    try {
        server.emplace(io, mac, socket);
    } catch (const std::runtime_error &e) {
        throw Failure{e.what()};
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

std::string celsius(const Json &value) {
    return value.is_number() ? fmt::format("{:.1f}", value.get<double>()) : "-";
}

std::string rpm(const Json &value) {
    return value.is_number() ? fmt::format("{:.0f}", value.get<double>()) : "?";
}

void printStatus(const Json &s, std::ostream &out) {
    fmt::print(out, "{}  t={:.1f} s  speed {}  load cpu {:.2f} gpu {:.2f}  ambient {} °C  {}\n",
               s["model"].get<std::string>(), s["time"].get<double>(), s["speed"].get<double>(),
               s["load"]["cpu"].get<double>(), s["load"]["gpu"].get<double>(),
               celsius(s["ambient"]), s["externalPower"].get<bool>() ? "adapter" : "battery");
    std::string temps;
    for (const auto &[name, value] : s["temperatures"].items()) {
        temps += fmt::format("  {} {}", name, celsius(value));
    }
    fmt::print(out, "temperatures{} °C\n", temps);
    fmt::print(out, "power         cpu {:.1f} W  gpu {:.1f} W  system {:.1f} W\n",
               s["power"]["cpu"].get<double>(), s["power"]["gpu"].get<double>(),
               s["power"]["system"].get<double>());
    for (const Json &fan : s["fans"]) {
        fmt::print(out, "fan {}         {:<6}  target {:>5}  actual {:>5} rpm  ({}-{}){}\n",
                   fan["index"].get<int>(), fan["mode"].get<std::string>(), rpm(fan["target"]),
                   rpm(fan["actual"]), rpm(fan["min"]), rpm(fan["max"]),
                   fan["stalled"].get<bool>() ? "  STALLED" : "");
    }
    if (const Json &b = s["battery"]; b.is_object()) {
        fmt::print(out, "battery       {} mAh of {}  {:+} mA  {:.2f} V  {} cycles{}\n",
                   b["AppleRawCurrentCapacity"].dump(), b["AppleRawMaxCapacity"].dump(),
                   b["Amperage"].get<int>(), b["Voltage"].get<double>() / 1000,
                   b["CycleCount"].dump(), b["IsCharging"] == 1 ? "  charging" : "");
    }
    if (const Json &sc = s["scenario"]; sc.is_object()) {
        fmt::print(out, "scenario      {}  {:.1f} s{}\n", sc["source"].get<std::string>(),
                   sc["elapsed"].get<double>(), sc["finished"].get<bool>() ? "  (finished)" : "");
    }
    fmt::print(out, "writes        {}\n", s["writes"]["count"].dump());
}

// Sends one call; the reply object on success.
Json call(const std::string &socket, const Json &request) {
    csmc::OpenedTransport opened = csmc::VsmcTransport::open(socket);
    if (opened.status != SMC_OK) {
        throw Failure{opened.detail};
    }
    auto &transport = static_cast<csmc::VsmcTransport &>(*opened.transport);
    std::string error;
    auto text = transport.callText(request.dump(), &error);
    // Parsed in order, so that `status --json` lists members as documented.
    Json reply = text ? Json::parse(*text, nullptr, false) : Json();
    if (!text || !reply.is_object()) {
        throw Failure{"virtual Mac at " + socket + ": " +
                      (text ? "the reply is not a JSON object" : error)};
    }
    if (!reply.value("ok", false)) {
        throw Failure{reply.value("error", std::string("the call failed"))};
    }
    return reply;
}

}  // namespace

Context defaultContext() {
    return {&std::cout, &std::cerr, &platform::realFiles(), &platform::processEnvironment()};
}

int run(int argc, const char *const *argv, Context &context) {
    CLI::App app(
        "The virtual Mac: a simulated SMC with fans, heat and a battery, served on a "
        "Unix socket.",
        "ostrel-vsmc");
    ServeOptions serveOptions;
    app.add_option("--profile", serveOptions.profile,
                   "built-in profile name or profile file (see: ostrel-vsmc profiles)");
    app.add_option("--socket", serveOptions.socket,
                   "socket to serve on (default: $OSTREL_ROOT/run/dev.ostrel.vsmc.sock)");
    app.add_option("--speed", serveOptions.speed, "simulated seconds per real second (0 pauses)")
        ->check(CLI::Range(0.0, VirtualMac::kMaxSpeed));
    app.add_option("--seed", serveOptions.seed, "seed of the sensor noise");
    app.add_option("--scenario", serveOptions.scenario,
                   "load scenario file to play from the start");

    CLI::App *profiles = app.add_subcommand("profiles", "list the built-in profiles");

    CLI::App *ctl = app.add_subcommand("ctl", "control a running virtual Mac");
    std::string socket;
    ctl->add_option("--socket", socket, "the virtual Mac's socket (default as for serving)");
    ctl->require_subcommand(1);
    Json request = Json::object();
    bool json = false;
    auto sub = [&](const char *name, const char *help, Json base) {
        CLI::App *cmd = ctl->add_subcommand(name, help);
        cmd->callback([&request, base] {
            if (base.is_object()) {
                request.update(base);
            }
        });
        return cmd;
    };

    CLI::App *status = sub("status", "print the machine's true state", {{"call", "status"}});
    status->add_flag("--json", json, "the full state as JSON (docs/vsmc-protocol.md)");
    double cpu = 0;
    double gpu = -1;
    CLI::App *load = sub("load", "set CPU and GPU load (stops a scenario)", {{"call", "load"}});
    load->add_option("--cpu", cpu, "CPU load, 0 to 1")->required()->check(CLI::Range(0.0, 1.0));
    load->add_option("--gpu", gpu, "GPU load, 0 to 1 (default: unchanged)")
        ->check(CLI::Range(0.0, 1.0));
    std::string scenarioFile;
    bool stopScenario = false;
    CLI::App *scenario = sub("scenario", "play a load scenario file", {});
    scenario->add_option("file", scenarioFile, "scenario file (docs/vsmc-physics.md)");
    scenario->add_flag("--stop", stopScenario, "stop the scenario being played");
    double number = 0;
    sub("speed", "set simulated seconds per real second", {{"call", "speed"}})
        ->add_option("value", number, "speed, 0 (paused) to 1000")
        ->required()
        ->check(CLI::Range(0.0, VirtualMac::kMaxSpeed));
    sub("advance", "let simulated time pass now", {{"call", "advance"}})
        ->add_option("seconds", number, "simulated seconds")
        ->required()
        ->check(CLI::Range(0.0, VirtualMac::kMaxAdvance));
    sub("ambient", "set the room temperature", {{"call", "ambient"}})
        ->add_option("celsius", number, "degrees Celsius")
        ->required()
        ->check(CLI::Range(-30.0, 60.0));
    std::string power;
    sub("power", "connect or pull the power adapter", {{"call", "power"}})
        ->add_option("source", power, "ac or battery")
        ->required()
        ->check(CLI::IsMember({"ac", "battery"}));
    std::string key;
    std::uint32_t times = 1;
    std::string result = "0x86";
    CLI::App *refuse = sub("refuse", "refuse the next writes to a key (firmware error)",
                           {{"call", "fault"}, {"command", "write"}});
    refuse->add_option("key", key, "the key")->required();
    refuse->add_option("--times", times, "how many writes")->check(CLI::Range(1u, 1000000000u));
    refuse->add_option("--result", result, "the result byte (default 0x86)");
    std::string command;
    std::string kernel;
    CLI::App *fail = sub("fail", "fail the next matching exchanges with a firmware or kernel error",
                         {{"call", "fault"}});
    fail->add_option("--key", key, "only exchanges for this key");
    fail->add_option("--command", command, "only this command")
        ->check(CLI::IsMember({"read", "write", "key-info", "key-at-index"}));
    fail->add_option("--times", times, "how many exchanges")->check(CLI::Range(1u, 1000000000u));
    auto *resultOption = fail->add_option("--result", result, "firmware result byte, e.g. 0x82");
    auto *kernelOption = fail->add_option("--kernel", kernel, "IOKit code, e.g. 0xe00002ca");
    resultOption->excludes(kernelOption);
    sub("vanish", "take a key out of the table", {{"call", "vanish"}})
        ->add_option("key", key, "the key")
        ->required();
    sub("restore", "put a vanished key back", {{"call", "restore"}})
        ->add_option("key", key, "the key")
        ->required();
    double fanIndex = 0;
    double min = 0;
    double max = 0;
    CLI::App *limits =
        sub("limits", "make a fan's limit keys read other values", {{"call", "limits"}});
    limits->add_option("fan", fanIndex, "fan index")->required();
    limits->add_option("min", min, "what F?Mn reads")->required();
    limits->add_option("max", max, "what F?Mx reads")->required();
    sub("stall", "stop a fan whatever it is told", {{"call", "stall"}, {"stalled", true}})
        ->add_option("fan", fanIndex, "fan index")
        ->required();
    sub("unstall", "let a stalled fan turn again", {{"call", "stall"}, {"stalled", false}})
        ->add_option("fan", fanIndex, "fan index")
        ->required();
    sub("unlock-refusals", "mode writes refused after the test key is next set",
        {{"call", "unlock-refusals"}})
        ->add_option("value", number, "refusals")
        ->required()
        ->check(CLI::Range(0.0, 1e6));
    sub("clear-faults", "drop every injected exchange fault", {{"call", "clear-faults"}});
    sub("model", "print the model identifier", {{"call", "model"}});
    sub("sensors", "print the temperature-sensor services as JSON", {{"call", "sensors"}});
    sub("battery", "print the battery dictionary as JSON", {{"call", "battery"}});

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e, *context.out, *context.err) == 0 ? 0 : 2;
    }

    try {
        if (profiles->parsed()) {
            for (const std::string &name : builtinProfileNames()) {
                fmt::print(*context.out, "{}\n", name);
            }
            return 0;
        }
        if (!ctl->parsed()) {
            if (serveOptions.profile.empty()) {
                fmt::print(*context.err, "ostrel-vsmc: --profile is required to serve\n{}",
                           app.help());
                return 2;
            }
            return serve(serveOptions, context);
        }

        if (socket.empty()) {
            socket = platform::Paths(*context.environment).vsmcSocket();
        }
        // Fill in what each command's arguments say.
        std::string name = request.value("call", "");
        if (scenario->parsed()) {
            if (stopScenario == !scenarioFile.empty()) {
                fmt::print(*context.err, "ostrel-vsmc: scenario needs a FILE or --stop\n");
                return 2;
            }
            request = stopScenario ? Json{{"call", "stop-scenario"}}
                                   : Json{{"call", "scenario"},
                                          {"text", readFile(context, scenarioFile, "scenario")},
                                          {"source", scenarioFile}};
        } else if (name == "load") {
            request["cpu"] = cpu;
            if (gpu >= 0) {
                request["gpu"] = gpu;
            }
        } else if (name == "speed" || name == "unlock-refusals") {
            request["value"] = number;
        } else if (name == "advance") {
            request["seconds"] = number;
        } else if (name == "ambient") {
            request["celsius"] = number;
        } else if (name == "power") {
            request["external"] = power == "ac";
        } else if (name == "vanish" || name == "restore") {
            request["key"] = key;
        } else if (name == "limits") {
            request.update({{"fan", fanIndex}, {"min", min}, {"max", max}});
        } else if (name == "stall") {
            request["fan"] = fanIndex;
        } else if (name == "fault") {
            request["times"] = times;
            if (!key.empty()) {
                request["key"] = key;
            }
            if (!command.empty()) {
                request["command"] = command;
            }
            if (!kernel.empty()) {
                request["kern"] = parseCode(kernel, "--kernel", 0xFFFFFFFFu);
            } else {
                request["result"] = parseCode(result, "--result", 0xFF);
            }
        }

        Json reply = call(socket, request);
        if (name == "status") {
            if (json) {
                *context.out << reply["status"].dump(2) << '\n';
            } else {
                printStatus(reply["status"], *context.out);
            }
        } else if (name == "model") {
            fmt::print(*context.out, "{}\n", reply["model"].get<std::string>());
        } else if (name == "sensors" || name == "battery") {
            *context.out << reply[name].dump(2) << '\n';
        }
        return 0;
    } catch (const CLI::ValidationError &e) {
        fmt::print(*context.err, "ostrel-vsmc: {}\n", e.what());
        return 2;
    } catch (const Failure &f) {
        fmt::print(*context.err, "ostrel-vsmc: {}\n", f.message);
        return 1;
    }
}

}  // namespace ostrel::vsmc::app
