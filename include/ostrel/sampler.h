// Hardware discovery and the sampler that turns a discovery into snapshots.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "csmc/smc.h"
#include "ostrel/discovery.h"
#include "ostrel/models.h"
#include "ostrel/smc.h"
#include "ostrel/system_access.h"

namespace ostrel {

// ---- Discovery ----------------------------------------------------------------------

// Walks every key once and keeps the plausible sensor values of a known quantity, finds
// the fans and their names, and notes the force key, the test key and temperature-sensor
// services. When `keyCount` is absent it is read first; failing to read it is the only
// error (SMCError). Every per-key problem just drops that key.
Discovery discover(SMC &smc, const std::string &model, std::optional<std::uint32_t> keyCount,
                   const SystemAccess &system);

// The discovery for this machine: from the cache file when `useCache` is set and the file
// is valid for the current model and key count (then its key information is seeded into
// the connection's cache), otherwise by scanning; with `useCache` a scan rewrites the file
// atomically. Throws SMCError only when the key count cannot be read.
Discovery loadDiscovery(SMC &smc, bool useCache, const SystemAccess &system);

// The discovery cache file's path, and its deletion (errors ignored).
std::string cachePath(const SystemAccess &system);
void clearCache(const SystemAccess &system);

// A fan's name from its identification key ("F0ID"): the bytes from offset 4 to the first
// zero, as UTF-8, trimmed of blanks and tabs; nothing when unreadable, too short or empty.
std::optional<std::string> fanName(SMC &smc, FourCC key);

// ---- Sampling -----------------------------------------------------------------------

// Which discovered sensors a sample reads.
enum class SamplerScope {
    essential,  // only essential sensors; no temperature-sensor services
    known,      // only known sensors, plus the temperature-sensor services
    all,        // every sensor, plus the temperature-sensor services
};

// Which kinds of values a sample collects.
struct SamplerParts {
    std::int64_t rawValue = 0;

    static const SamplerParts temperatures;  // 1
    static const SamplerParts fans;          // 2
    static const SamplerParts power;         // 4
    static const SamplerParts electrical;    // 8: voltages and currents
    static const SamplerParts battery;       // 16
    static const SamplerParts everything;    // 31

    constexpr SamplerParts() = default;
    constexpr explicit SamplerParts(std::int64_t raw) : rawValue(raw) {}
    constexpr SamplerParts(std::initializer_list<SamplerParts> parts) {
        for (SamplerParts p : parts) {
            rawValue |= p.rawValue;
        }
    }

    constexpr bool contains(SamplerParts other) const {
        return (rawValue & other.rawValue) == other.rawValue;
    }
    constexpr SamplerParts operator|(SamplerParts other) const {
        return SamplerParts(rawValue | other.rawValue);
    }
    constexpr SamplerParts operator&(SamplerParts other) const {
        return SamplerParts(rawValue & other.rawValue);
    }
    constexpr void insert(SamplerParts other) { rawValue |= other.rawValue; }
    constexpr void remove(SamplerParts other) { rawValue &= ~other.rawValue; }
    constexpr bool operator==(const SamplerParts &) const = default;
};

inline const SamplerParts SamplerParts::temperatures{1};
inline const SamplerParts SamplerParts::fans{2};
inline const SamplerParts SamplerParts::power{4};
inline const SamplerParts SamplerParts::electrical{8};
inline const SamplerParts SamplerParts::battery{16};
inline const SamplerParts SamplerParts::everything{31};

// Takes snapshots of one machine. Not thread-safe: one thread or serial queue at a time.
class Sampler {
  public:
    // Uses `smc`, or opens its own connection when it is null (OSTREL_SMC), then loads the
    // discovery (cache as `useCache` says) and opens the temperature-sensor services when
    // discovery found them. Throws SMCError when the connection cannot be opened or the
    // key count cannot be read.
    Sampler(std::shared_ptr<SMC> smc, SamplerScope scope, bool useCache,
            const SystemAccess &system);
    ~Sampler();
    Sampler(const Sampler &) = delete;
    Sampler &operator=(const Sampler &) = delete;

    // One snapshot. Never fails: anything that cannot be read is left out.
    Snapshot sample();
    // Whether the last sample is whole: the first failure in it that concerned the
    // connection rather than one key (the kernel, a vanished virtual Mac, privileges), with
    // its cause; nothing when every read failed, if at all, for a reason of its own key.
    const std::optional<SMCError> &lastFailure() const { return lastFailure_; }
    // Makes the next sample that collects fans read their limits again.
    void invalidateFanLimits() { fanLimitsRead_.reset(); }

    const std::shared_ptr<SMC> &smc() const { return smc_; }
    const Discovery &discovery() const { return discovery_; }
    const std::vector<FanDescriptor> &fans() const { return discovery_.fans; }

    SamplerScope scope = SamplerScope::essential;
    SamplerParts parts = SamplerParts::everything;
    // Only temperatures of these groups (an empty set: no SMC temperatures at all).
    std::optional<std::set<SensorGroup>> groups;
    // How old fan limits may get before a sample reads them again, in seconds.
    double fanLimitRefresh = 30.0;

  private:
    std::vector<FanReading> readFans();
    std::optional<double> readNumber(FourCC key);

    std::shared_ptr<SMC> smc_;
    Discovery discovery_;
    SystemAccess system_;
    smc_hid *hid_ = nullptr;
    std::vector<smc_hid_reading> hidBuffer_;
    std::map<std::int64_t, std::pair<double, double>> fanLimits_;
    std::optional<platform::Clock::Monotonic> fanLimitsRead_;  // empty: never read
    std::optional<SMCError> lastFailure_;
};

}  // namespace ostrel
