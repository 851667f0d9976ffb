// The sensor catalog: lookups, patterns for unlisted keys, plausibility and grouping.

#include <gtest/gtest.h>

#include <limits>

#include "ostrel/catalog.h"

namespace {

using namespace ostrel;
using G = SensorGroup;
using Q = Quantity;

// Names come from the quantity's table only; temperatures then from patterns, and
// otherwise the name is the key itself, unknown (and, for temperatures, in group other).
TEST(CatalogTest, TableRowsThenPatternsThenTheKeyItself) {
    struct Case {
        const char *key;
        Quantity quantity;
        const char *name;
        SensorGroup group;  // temperatures only
        bool known;
    } cases[] = {
        {"TC1C", Q::temperature, "CPU Core 1", G::cpu, true},
        {"TCAC", Q::temperature, "CPU Core 10", G::cpu, true},
        {"TC0C", Q::temperature, "CPU 0C", G::cpu, false},
        {"TCaC", Q::temperature, "CPU aC", G::cpu, false},  // generated keys: upper-case digits
        {"Tp01", Q::temperature, "CPU P-Core 01", G::cpu, true},
        {"Tp0A", Q::temperature, "CPU P-Core 0A", G::cpu, true},
        {"Tg0f", Q::temperature, "GPU 0f", G::gpu, true},
        {"TG9Z", Q::temperature, "GPU 9Z", G::gpu, false},
        {"Ts9P", Q::temperature, "Ts9P", G::ambient, false},
        {"TS0P", Q::temperature, "TS0P", G::other, false},
        {"TaXY", Q::temperature, "TaXY", G::other, false},
        {"TM0P", Q::temperature, "Memory Proximity", G::memory, true},
        {"Tm0P", Q::temperature, "Mainboard Proximity", G::board, true},
        {"TC0PX", Q::temperature, "TC0PX", G::other, false},
        {"PC0P", Q::temperature, "PC0P", G::other, false},
        {"", Q::temperature, "", G::other, false},
        {"PXYZ", Q::power, "PXYZ", G::other, false},
        {"VBAT", Q::voltage, "Battery", G::other, true},
        {"VBAT", Q::current, "VBAT", G::other, false},
        {"TC0P", Q::power, "TC0P", G::other, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.key);
        Catalog::Name found = Catalog::name(c.key, c.quantity);
        EXPECT_EQ(std::pair(found.name, found.known), std::pair(std::string(c.name), c.known));
        if (c.quantity == Q::temperature) {
            Catalog::Temperature t = Catalog::temperature(c.key);
            EXPECT_EQ(std::pair(t.entry, t.known),
                      std::pair(Catalog::Entry{c.name, c.group}, c.known));
        }
    }
}

TEST(CatalogTest, QuantityByFirstCharacter) {
    EXPECT_EQ(Catalog::quantity("P"), Quantity::power);
    EXPECT_FALSE(Catalog::quantity(""));
    EXPECT_FALSE(Catalog::quantity("tC0P"));
}

TEST(CatalogTest, PlausibleBoundsAreExclusiveWhereDocumented) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    struct Case {
        double value;
        Quantity quantity;
        bool plausible;
    } cases[] = {
        {1.0, Quantity::temperature, false},   {1.5, Quantity::temperature, true},
        {130.0, Quantity::temperature, false}, {0.0, Quantity::power, true},
        {1000.0, Quantity::power, false},      {0.0, Quantity::voltage, true},
        {100.0, Quantity::voltage, false},     {-50.0, Quantity::current, false},
        {-49.9, Quantity::current, true},      {inf, Quantity::power, false},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(Catalog::plausible(c.value, c.quantity), c.plausible) << c.value;
    }
    for (Quantity quantity : allQuantities) {
        EXPECT_FALSE(Catalog::plausible(nan, quantity));
    }
}

TEST(CatalogTest, EssentialKeysAndPerCoreFamilies) {
    for (const std::string &key : Catalog::essentialKeys()) {
        EXPECT_TRUE(Catalog::temperatures().contains(key) || Catalog::power().contains(key)) << key;
    }
    for (const char *key : {"TC0P", "PSTR", "PG0R", "Ts0P", "Tp01", "Te0Z", "Tg00"}) {
        EXPECT_TRUE(Catalog::isEssential(key)) << key;
    }
    for (const char *key : {"TG1P", "TE05", "TP01", "Tp012", "Tp0", "PPBR", "ts0P", ""}) {
        EXPECT_FALSE(Catalog::isEssential(key)) << key;
    }
}

// The words are a list the code reads; what matters is their order, case and spacing.
TEST(CatalogTest, HidGroupByWordsInOrder) {
    struct Case {
        const char *name;
        SensorGroup group;
    } cases[] = {
        {"PMU tdie3", G::cpu},    {"PMU2 tdie", G::board}, {"GPU near CPU", G::gpu},
        {"NAND CH0", G::storage}, {"AMBIENT", G::ambient}, {"", G::board},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(Catalog::hidGroup(c.name), c.group) << c.name;
    }
}

}  // namespace
