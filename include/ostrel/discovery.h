// What hardware discovery found: the usable sensor keys, the fans and three machine flags,
// and the small text file in which a discovery is cached between runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/json.h"
#include "ostrel/models.h"
#include "ostrel/smc.h"

namespace ostrel {

// One usable sensor key.
struct SensorDescriptor {
    SMCKeyInfo info;  // as the SMC reported it at discovery
    Quantity quantity = Quantity::temperature;
    std::string name;                        // from the catalog
    SensorGroup group = SensorGroup::other;  // always `other` for power, voltage, current
    bool known = false;                      // the catalog recognises the key
    bool essential = false;                  // read under the `essential` scope

    bool operator==(const SensorDescriptor &) const = default;
};

// One fan and its keys: "F", the index in upper-case hexadecimal, and a suffix.
struct FanDescriptor {
    std::int64_t index = 0;
    std::string name;
    bool hasModeKey = false;

    FourCC actualKey() const { return key("Ac"); }  // measured speed
    FourCC minKey() const { return key("Mn"); }
    FourCC maxKey() const { return key("Mx"); }
    FourCC targetKey() const { return key("Tg"); }
    FourCC modeKey() const { return key("Md"); }  // 1 means manual

    bool operator==(const FanDescriptor &) const = default;

  private:
    FourCC key(std::string_view suffix) const;
};

struct Discovery {
    static constexpr std::int64_t kVersion = 2;

    std::int64_t version = kVersion;        // the cache format version
    std::string model;                      // the machine's model identifier
    std::uint32_t keyCount = 0;             // the SMC's key count at scan time
    std::vector<SensorDescriptor> sensors;  // in key-index order
    std::vector<FanDescriptor> fans;        // in index order
    bool fanForceKey = false;               // "FS! " exists
    bool fanTestKey = false;                // "Ftst" exists
    bool hid = false;                       // temperature-sensor services are available

    bool operator==(const Discovery &) const = default;

    // The cache file's text: a header line, the model, one line per sensor and per fan.
    std::string cacheData() const;
    // A discovery from cache text, or nothing when the text is not a valid version-2 cache.
    // Never throws, whatever the bytes.
    static std::optional<Discovery> fromCache(std::string_view bytes);
};

// The JSON forms, with the field names as member names (what `ostrel discovery --json`
// prints).
void to_json(Json &json, const SensorDescriptor &sensor);
void to_json(Json &json, const FanDescriptor &fan);
void to_json(Json &json, const Discovery &discovery);

}  // namespace ostrel
