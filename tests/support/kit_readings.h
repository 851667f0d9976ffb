// What the kit's tests look for in a discovery or a snapshot, as values to compare whole.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ostrel/discovery.h"
#include "ostrel/models.h"

namespace ostrel::test {

// The keys of readings, in order.
inline std::vector<std::string> keysOf(const std::vector<Reading> &readings) {
    std::vector<std::string> out;
    for (const Reading &r : readings) {
        out.push_back(r.key);
    }
    return out;
}

// The sensor a discovery kept for a key, or nothing when it left the key out.
inline std::optional<SensorDescriptor> sensorIn(const Discovery &d, const char *key) {
    for (const SensorDescriptor &s : d.sensors) {
        if (s.info.key == FourCC(key)) {
            return s;
        }
    }
    return std::nullopt;
}

// The keys of a discovery's sensors in key-index order; with `essentialOnly`, only those
// read under the essential scope.
inline std::vector<std::string> sensorKeys(const Discovery &d, bool essentialOnly = false) {
    std::vector<std::string> out;
    for (const SensorDescriptor &s : d.sensors) {
        if (s.essential || !essentialOnly) {
            out.push_back(s.info.key.description());
        }
    }
    return out;
}

}  // namespace ostrel::test
