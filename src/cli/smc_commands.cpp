// `ostrel smc ...`: raw access to the key table.

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <functional>
#include <ostream>

#include "commands.h"
#include "csmc/key_rows.h"
#include "ostrel/machine_model.h"
#include "ostrel/platform/text.h"

namespace ostrel::cli {

namespace {

// One key of the table as the walk found it: a hole (index failed) has no info; a key
// that could not be read has no value, and `error` says why.
struct KeyRow {
    std::uint32_t index = 0;
    std::optional<SMCKeyInfo> info;
    std::optional<SMCValue> value;
    std::string error;
};

// Visits every index of the key table, reading what can be read. A key that cannot be read
// is the key's business and the walk goes on; a failure of the connection itself (the
// virtual Mac gone, the driver unloaded) would fail every later key too, so the walk stops
// there and says how far it got. `finish` runs after the last row either way, so that what
// was read gets printed.
void walkKeys(SMC &smc, const std::function<void(const KeyRow &)> &visit,
              const std::function<void()> &finish) {
    std::uint32_t count = smc.keyCount();
    for (std::uint32_t i = 0; i < count; ++i) {
        KeyRow row;
        row.index = i;
        try {
            row.info = smc.info(smc.key(i));
            row.value = smc.read(row.info->key);
        } catch (const SMCError &e) {
            if (e.concernsConnection()) {
                finish();
                throw IncompleteOutput(
                    fmt::format("stopped at key {} of {}: {}", i, count, e.explanation()));
            }
            row.error = e.what();
        }
        visit(row);
    }
    finish();
}

Json keyJson(const SMCKeyInfo &info, const std::optional<SMCValue> &value) {
    Json json = info;
    if (value) {
        json["bytes"] = value->hex();
        json["display"] = value->display();
        if (auto number = value->doubleValue()) {
            json["value"] = *number;
        }
    }
    return json;
}

}  // namespace

bool isKeyText(const std::string &text) {
    return !text.empty() && text.size() <= 4 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c <= 0x7E; });
}

void printJson(std::ostream &out, const Json &json) {
    out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void smcKeysCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    std::shared_ptr<SMC> smc = context.openSmc();
    Json rows = Json::array();
    if (!options.json) {
        fmt::print(out, "{:>5}  {:<4}  {:<4}  {:>4}  {:<4}  {}\n", "INDEX", "KEY", "TYPE", "SIZE",
                   "ATTR", "VALUE");
    }
    walkKeys(
        *smc,
        [&](const KeyRow &row) {
            if (!row.info) {
                return;  // a hole in the table: list what can be listed
            }
            if (options.json) {
                Json entry{{"index", row.index}};
                entry.update(keyJson(*row.info, row.value));
                rows.push_back(std::move(entry));
                return;
            }
            fmt::print(out, "{:>5}  {}  {}  {:>4}  0x{:02x}  {}\n", row.index,
                       row.info->key.description(), row.info->type.description(), row.info->size,
                       row.info->attributes, row.value ? row.value->display() : "(unreadable)");
        },
        [&] {
            if (options.json) {
                printJson(out, rows);
            }
        });
}

void smcReadCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    std::shared_ptr<SMC> smc = context.openSmc();
    FourCC key(options.key);
    SMCKeyInfo info = smc->info(key);
    SMCValue value = smc->read(key);
    if (options.json) {
        printJson(out, keyJson(info, value));
        return;
    }
    fmt::print(out, "{}  {}  {} bytes  attributes 0x{:02x}  [{}]  {}\n", key.description(),
               info.type.description(), info.size, info.attributes, value.hex(), value.display());
}

// The key table in the virtual Mac's profile format, so that a real machine's dump can be
// loaded as a profile (and attached to bug reports).
void smcDumpCommand(Context &context, const Options &options) {
    std::ostream &out = *context.out;
    std::shared_ptr<SMC> smc = context.openSmc();
    // The model comes from the firmware or a profile: one line, nothing a terminal obeys.
    std::string model =
        text::printable(machineModel(smc.get(), context.system.paths(), *context.system.files));
    Json rows = Json::array();
    if (!options.json) {
        fmt::print(out,
                   "# SMC key table of {} ({} keys), written by 'ostrel smc dump'.\n"
                   "# Load it with OSTREL_SMC=memory:FILE or 'ostrel-vsmc --profile FILE'.\n"
                   "model {}\n",
                   model.empty() ? "an unknown model" : model, smc->keyCount(),
                   model.empty() ? "Unknown" : model);
    }
    walkKeys(
        *smc,
        [&](const KeyRow &row) {
            if (options.json) {
                if (row.info) {
                    rows.push_back(keyJson(*row.info, row.value));
                }
                return;
            }
            if (!row.info) {
                fmt::print(out, "# index {} skipped: {}\n", row.index, row.error);
                return;
            }
            csmc::KeyEntry entry{row.info->key.rawValue,
                                 row.info->type.rawValue,
                                 row.info->size,
                                 row.info->attributes,
                                 {}};
            if (row.value) {
                std::copy_n(row.value->bytes.begin(),
                            std::min<std::size_t>(row.value->bytes.size(), entry.bytes.size()),
                            entry.bytes.begin());
            } else {
                fmt::print(out, "# {} could not be read ({}); its value is left zero\n",
                           csmc::codeToken(entry.key), row.error);
            }
            out << csmc::formatKeyRow(entry);
        },
        [&] {
            if (options.json) {
                printJson(out, Json{{"model", model}, {"keys", rows}});
            }
        });
}

}  // namespace ostrel::cli
