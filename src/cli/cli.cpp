#include "cli.h"

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <CLI/CLI.hpp>

#include <iostream>

#include "ostrel/machine_model.h"
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

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        out << app.help();
        return 0;
    } catch (const CLI::ParseError &e) {
        err << "ostrel: " << e.what() << "\nRun 'ostrel --help' for usage.\n";
        return 2;
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
