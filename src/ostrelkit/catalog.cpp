#include "ostrel/catalog.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "ostrel/platform/text.h"

namespace ostrel::Catalog {

namespace {

using Group = SensorGroup;

struct Row {
    const char *key;
    const char *name;
    SensorGroup group;
};

constexpr Row kTemperatureRows[] = {
    {"TC0P", "CPU Proximity", Group::cpu},
    {"TC0D", "CPU Die", Group::cpu},
    {"TC0E", "CPU Die (virtual)", Group::cpu},
    {"TC0F", "CPU Die (filtered)", Group::cpu},
    {"TC0H", "CPU Heatsink", Group::cpu},
    {"TCXC", "CPU PECI", Group::cpu},
    {"TCMX", "CPU Max", Group::cpu},
    {"TCGC", "CPU Integrated GPU", Group::cpu},
    {"TCSA", "CPU System Agent", Group::cpu},
    {"TCAD", "CPU Package", Group::cpu},
    {"TG0P", "GPU Proximity", Group::gpu},
    {"TG1P", "GPU Proximity 2", Group::gpu},
    {"TG0D", "GPU Die", Group::gpu},
    {"TG0H", "GPU Heatsink", Group::gpu},
    {"TGDD", "GPU Die (digital)", Group::gpu},
    {"TGDE", "GPU Die (estimated)", Group::gpu},
    {"TGDF", "GPU Die (filtered)", Group::gpu},
    {"TGVF", "GPU VRAM (filtered)", Group::gpu},
    {"TGVP", "GPU VRAM Proximity", Group::gpu},
    {"TM0P", "Memory Proximity", Group::memory},
    {"TM0S", "Memory Slot", Group::memory},
    {"Tm0P", "Mainboard Proximity", Group::board},
    {"TPCD", "Platform Controller Hub", Group::board},
    {"TW0P", "Wi-Fi Module", Group::board},
    {"Th0H", "Heatpipe 0", Group::board},
    {"Th1H", "Heatpipe 1", Group::board},
    {"Th2H", "Heatpipe 2", Group::board},
    {"TTLD", "Thunderbolt Left", Group::board},
    {"TTRD", "Thunderbolt Right", Group::board},
    {"TaLC", "Airflow Left", Group::board},
    {"TaRC", "Airflow Right", Group::board},
    {"TI0P", "Thunderbolt 1", Group::board},
    {"TI1P", "Thunderbolt 2", Group::board},
    {"TH0F", "SSD (filtered)", Group::storage},
    {"TH0X", "SSD (max)", Group::storage},
    {"TH0P", "SSD Proximity", Group::storage},
    {"TH0a", "SSD A", Group::storage},
    {"TH0b", "SSD B", Group::storage},
    {"TH1a", "SSD C", Group::storage},
    {"TH1b", "SSD D", Group::storage},
    {"TN0D", "Northbridge Die", Group::board},
    {"TN0P", "Northbridge Proximity", Group::board},
    {"TB0T", "Battery", Group::battery},
    {"TB1T", "Battery Cell 1", Group::battery},
    {"TB2T", "Battery Cell 2", Group::battery},
    {"TB3T", "Battery Cell 3", Group::battery},
    {"TA0P", "Ambient", Group::ambient},
    {"TA0V", "Ambient", Group::ambient},
    {"TA1P", "Ambient 2", Group::ambient},
    {"Ts0P", "Palm Rest", Group::ambient},
    {"Ts1P", "Palm Rest 2", Group::ambient},
    {"Ts0S", "Bottom Skin 1", Group::ambient},
    {"Ts1S", "Bottom Skin 2", Group::ambient},
    {"Ts2S", "Bottom Skin 3", Group::ambient},
};

using NameTable = std::map<std::string, std::string, std::less<>>;

// An unlisted T key named by its second character; `known` marks the per-core families
// of Apple silicon, which no row lists but which are real sensors.
struct Pattern {
    char second;
    const char *prefix;  // nullptr: the key itself is the name
    SensorGroup group;
    bool known;
};

constexpr Pattern kPatterns[] = {
    {'p', "CPU P-Core ", Group::cpu, true},   {'e', "CPU E-Core ", Group::cpu, true},
    {'g', "GPU ", Group::gpu, true},          {'C', "CPU ", Group::cpu, false},
    {'G', "GPU ", Group::gpu, false},         {'M', "Memory ", Group::memory, false},
    {'H', "Storage ", Group::storage, false}, {'B', "Battery ", Group::battery, false},
    {'A', nullptr, Group::ambient, false},    {'s', nullptr, Group::ambient, false},
};

bool isPerCoreKey(std::string_view key) {
    return key.size() == 4 && key[0] == 'T' && (key[1] == 'p' || key[1] == 'e' || key[1] == 'g');
}

}  // namespace

const std::map<std::string, Entry, std::less<>> &temperatures() {
    static const auto table = [] {
        std::map<std::string, Entry, std::less<>> rows;
        for (const Row &row : kTemperatureRows) {
            rows[row.key] = Entry{row.name, row.group};
        }
        // The per-core keys of Intel machines: TC1C is core 1 ... TCFC core 15.
        for (int n = 1; n <= 15; ++n) {
            std::string key = "TC";
            key += "0123456789ABCDEF"[n];
            key += 'C';
            rows[key] = Entry{"CPU Core " + std::to_string(n), Group::cpu};
        }
        return rows;
    }();
    return table;
}

const NameTable &power() {
    static const NameTable table = {
        {"PSTR", "System Total"},
        {"PDTR", "DC In"},
        {"PPBR", "Battery"},
        {"PCPC", "CPU Package"},
        {"PCPT", "CPU Package Total"},
        {"PCPG", "CPU Graphics"},
        {"PC0R", "CPU Rail"},
        {"PCPR", "CPU"},
        {"PG0R", "GPU Rail"},
        {"PGTR", "GPU"},
        {"PM0C", "Memory"},
        {"PZ0E", "Power Zone 0"},
        {"PMVC", "Memory"},
        {"PH0C", "Storage"},
    };
    return table;
}

const NameTable &voltages() {
    static const NameTable table = {
        {"VD0R", "DC In"},    {"VP0R", "Main Rail"}, {"VCAC", "CPU Core"},
        {"VG0C", "GPU Core"}, {"VBAT", "Battery"},   {"VC0C", "CPU Core"},
    };
    return table;
}

const NameTable &currents() {
    static const NameTable table = {
        {"ID0R", "DC In"},        {"IC0R", "CPU Rail"}, {"IBAC", "Battery"},  {"IM0C", "Memory"},
        {"IPBR", "Battery Rail"}, {"IG0R", "GPU Rail"}, {"IC0C", "CPU Core"},
    };
    return table;
}

const std::set<std::string, std::less<>> &essentialKeys() {
    static const std::set<std::string, std::less<>> keys = {
        "TC0P", "TC0D", "TC0E", "TCXC", "TCMX", "TCAD", "TG0P", "TG0D", "TGDF", "TM0P", "TH0X",
        "TH0F", "TB0T", "TA0P", "TA0V", "Ts0P", "PSTR", "PDTR", "PCPC", "PCPT", "PCPG", "PG0R",
    };
    return keys;
}

std::optional<Quantity> quantity(std::string_view key) {
    if (key.empty()) {
        return std::nullopt;
    }
    switch (key.front()) {
        case 'T':
            return Quantity::temperature;
        case 'P':
            return Quantity::power;
        case 'V':
            return Quantity::voltage;
        case 'I':
            return Quantity::current;
        default:
            return std::nullopt;
    }
}

Temperature temperature(std::string_view key) {
    const auto &table = temperatures();
    if (auto row = table.find(key); row != table.end()) {
        return {row->second, true};
    }
    if (key.size() == 4 && key[0] == 'T') {
        for (const Pattern &pattern : kPatterns) {
            if (key[1] == pattern.second) {
                std::string name = pattern.prefix == nullptr
                                       ? std::string(key)
                                       : pattern.prefix + std::string(key.substr(2));
                return {{std::move(name), pattern.group}, pattern.known};
            }
        }
    }
    return {{std::string(key), Group::other}, false};
}

Name name(std::string_view key, Quantity quantity) {
    const NameTable *table = nullptr;
    switch (quantity) {
        case Quantity::temperature: {
            Temperature found = temperature(key);
            return {std::move(found.entry.name), found.known};
        }
        case Quantity::power:
            table = &power();
            break;
        case Quantity::voltage:
            table = &voltages();
            break;
        case Quantity::current:
            table = &currents();
            break;
    }
    if (auto row = table->find(key); row != table->end()) {
        return {row->second, true};
    }
    return {std::string(key), false};
}

bool plausible(double value, Quantity quantity) {
    if (!std::isfinite(value)) {
        return false;
    }
    switch (quantity) {
        case Quantity::temperature:
            return value > 1.0 && value < 130.0;
        case Quantity::power:
            return value >= 0.0 && value < 1000.0;
        case Quantity::voltage:
            return value >= 0.0 && value < 100.0;
        case Quantity::current:
            return value > -50.0 && value < 50.0;
    }
    return false;
}

bool isPerCorePattern(std::string_view key) {
    return isPerCoreKey(key) && !temperatures().contains(key);
}

bool isEssential(std::string_view key) {
    return essentialKeys().contains(key) || isPerCoreKey(key);
}

SensorGroup hidGroup(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(), text::asciiLower);
    auto contains = [&lower](std::initializer_list<std::string_view> words) {
        return std::any_of(words.begin(), words.end(), [&lower](std::string_view word) {
            return lower.find(word) != std::string::npos;
        });
    };
    if (contains({"gpu"})) {
        return Group::gpu;
    }
    if (contains({"pacc", "eacc", "soc", "pmu tdie", "cpu"})) {
        return Group::cpu;
    }
    if (contains({"nand", "ssd"})) {
        return Group::storage;
    }
    if (contains({"battery", "gas gauge"})) {
        return Group::battery;
    }
    if (contains({"ambient", "skin"})) {
        return Group::ambient;
    }
    return Group::board;
}

}  // namespace ostrel::Catalog
