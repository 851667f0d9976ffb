// `ostrel smc ...`: raw access to the key table.

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <functional>
#include <ostream>

#include "commands.h"
#include "csmc/key_rows.h"
#include "ostrel/machine_model.h"

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

// Visits every index of the key table, reading what can be read.
void walkKeys(SMC &smc, const std::function<void(const KeyRow &)> &visit) {
    std::uint32_t count = smc.keyCount();
    for (std::uint32_t i = 0; i < count; ++i) {
        KeyRow row;
        row.index = i;
        try {
            row.info = smc.info(smc.key(i));
            row.value = smc.read(row.info->key);
        } catch (const SMCError &e) {
            row.error = e.what();
        }
        visit(row);
    }
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

void smcKeys(SMC &smc, bool json, std::ostream &out) {
    Json rows = Json::array();
    if (!json) {
        fmt::print(out, "{:>5}  {:<4}  {:<4}  {:>4}  {:<4}  {}\n", "INDEX", "KEY", "TYPE", "SIZE",
                   "ATTR", "VALUE");
    }
    walkKeys(smc, [&](const KeyRow &row) {
        if (!row.info) {
            return;  // a hole in the table: list what can be listed
        }
        if (json) {
            Json entry{{"index", row.index}};
            entry.update(keyJson(*row.info, row.value));
            rows.push_back(std::move(entry));
            return;
        }
        fmt::print(out, "{:>5}  {}  {}  {:>4}  0x{:02x}  {}\n", row.index,
                   row.info->key.description(), row.info->type.description(), row.info->size,
                   row.info->attributes, row.value ? row.value->display() : "(unreadable)");
    });
    if (json) {
        out << rows.dump(2) << '\n';
    }
}

void smcRead(SMC &smc, const std::string &keyText, bool json, std::ostream &out) {
    FourCC key(keyText);
    SMCKeyInfo info = smc.info(key);
    SMCValue value = smc.read(key);
    if (json) {
        out << keyJson(info, value).dump(2) << '\n';
        return;
    }
    fmt::print(out, "{}  {}  {} bytes  attributes 0x{:02x}  [{}]  {}\n", key.description(),
               info.type.description(), info.size, info.attributes, value.hex(), value.display());
}

// The key table in the virtual Mac's profile format, so that a real machine's dump can be
// loaded as a profile (and attached to bug reports).
void smcDump(SMC &smc, const SystemAccess &system, bool json, std::ostream &out) {
    std::string model = machineModel(&smc, system.paths(), *system.files);
    Json rows = Json::array();
    if (!json) {
        fmt::print(out,
                   "# SMC key table of {} ({} keys), written by 'ostrel smc dump'.\n"
                   "# Load it with OSTREL_SMC=memory:FILE or 'ostrel-vsmc --profile FILE'.\n"
                   "model {}\n",
                   model.empty() ? "an unknown model" : model, smc.keyCount(),
                   model.empty() ? "Unknown" : model);
    }
    walkKeys(smc, [&](const KeyRow &row) {
        if (json) {
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
    });
    if (json) {
        out << Json{{"model", model}, {"keys", rows}}.dump(2) << '\n';
    }
}

}  // namespace ostrel::cli
