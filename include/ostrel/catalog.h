// The fixed knowledge about SMC sensor keys: what a key measures, what it is called, in
// which group it sits, whether it is essential (read even by the cheapest sampling), and
// whether a value is physically plausible; plus the grouping of temperature-service
// sensors, which have names instead of keys.
//
// Keys are compared exactly and case-sensitively, byte by byte: TM0P (memory) and Tm0P
// (mainboard) are different keys. The tables are built once, on first use, under the
// compiler's one-time initialisation guard and never change afterwards, so every function
// here may be called from any thread without locking. None of them fails.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "ostrel/models.h"

namespace ostrel::Catalog {

// One row of the temperature table.
struct Entry {
    std::string name;
    SensorGroup group = SensorGroup::other;
    bool operator==(const Entry &) const = default;
};

// The tables: 69 temperature rows (54 listed keys and CPU cores 1 to 15 as TC1C ... TCFC),
// 14 power, 6 voltage and 7 current rows, and the 22 essential keys.
const std::map<std::string, Entry, std::less<>> &temperatures();
const std::map<std::string, std::string, std::less<>> &power();
const std::map<std::string, std::string, std::less<>> &voltages();
const std::map<std::string, std::string, std::less<>> &currents();
const std::set<std::string, std::less<>> &essentialKeys();

// What the key measures, by its first character: T temperature, P power, V voltage,
// I current; anything else (lower case included, or an empty key) is nothing.
std::optional<Quantity> quantity(std::string_view key);

struct Temperature {
    Entry entry;
    bool known = false;
};
// The table's row (known), or for an unlisted four-character T key a name and group from
// its second character (per-core keys Tp.., Te.., Tg.. count as known; TC.., TG.., TM..,
// TH.., TB.. are named by pattern but unknown; TA.. and Ts.. are ambient), or else the key
// itself in group other, unknown.
Temperature temperature(std::string_view key);

struct Name {
    std::string name;
    bool known = false;
};
// The display name in the quantity's table (temperatures as temperature() names them); the
// key itself, unknown, when that table has no row.
Name name(std::string_view key, Quantity quantity);

// Whether a finite value can be a real reading: 1 < °C < 130, 0 ≤ W < 1000, 0 ≤ V < 100,
// -50 < A < 50. Infinite and NaN values never are.
bool plausible(double value, Quantity quantity);

// In the essential set, or a four-character T key whose second character is p, e or g.
bool isEssential(std::string_view key);

// A key the catalog knows only through the Apple-silicon per-core patterns (a
// four-character T key whose second character is p, e or g, without a row of its own).
// Discovery treats such keys as unlisted on Intel machines, where that shape names other
// sensors (power supply, PCIe proximity).
bool isPerCorePattern(std::string_view key);

// The group of a temperature-service sensor from words in its name (case-insensitive):
// gpu; pacc, eacc, soc, pmu tdie or cpu; nand or ssd; battery or gas gauge; ambient or
// skin; in that order, the first match winning, and board otherwise. Never memory or other.
SensorGroup hidGroup(std::string_view name);

}  // namespace ostrel::Catalog
