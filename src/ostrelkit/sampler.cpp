#include "ostrel/sampler.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "csmc/hid.h"
#include "csmc/keys.h"
#include "ostrel/battery.h"
#include "ostrel/catalog.h"
#include "ostrel/machine_model.h"
#include "ostrel/platform/numbers.h"
#include "ostrel/platform/text.h"

namespace ostrel {

namespace {

const FourCC kForceKey(csmc::kForceMaskKey);
const FourCC kTestKey(csmc::kTestKey);
const FourCC kFanCount("FNum");
const FourCC kBatteryTemperature("TB0T");
constexpr std::size_t kMaxFans = 16;
// A cache of the largest key tables is about 100 KiB; anything much bigger is not ours.
constexpr std::size_t kMaxCacheBytes = 1 << 20;

// The temperature services of the machine `smc` reaches, whatever OSTREL_SMC says.
std::unique_ptr<csmc::TemperatureServices> temperatureServices(SMC &smc,
                                                               const SystemAccess &system) {
    return csmc::connectionServices(smc.conn(), system.paths().sysfs(), *system.files);
}

// Integer and flag types carry counts, states and bit fields, never measurements.
bool isIntegerType(FourCC type) {
    std::string text = type.description();
    return text.starts_with("ui") || text.starts_with("si") || text == "flag" || text == "hex_";
}

// Every group that has a known temperature gets at least one essential sensor: when none
// of its known temperatures is essential already, the one that read highest is promoted.
void promoteEssentials(std::vector<SensorDescriptor> &sensors,
                       const std::map<std::uint32_t, double> &valueByKey) {
    for (SensorGroup group : allSensorGroups) {
        SensorDescriptor *hottest = nullptr;
        double hottestValue = 0;
        bool hasEssential = false;
        for (SensorDescriptor &sensor : sensors) {
            if (sensor.quantity != Quantity::temperature || sensor.group != group ||
                !sensor.known) {
                continue;
            }
            hasEssential = hasEssential || sensor.essential;
            auto it = valueByKey.find(sensor.info.key.rawValue);
            double value = it == valueByKey.end() ? 0.0 : it->second;
            if (hottest == nullptr || value > hottestValue) {
                hottest = &sensor;
                hottestValue = value;
            }
        }
        if (hottest != nullptr && !hasEssential) {
            hottest->essential = true;
        }
    }
}

// The fan count from FNum, truncated toward zero, and that count capped at 16; a failed
// read, a negative or a non-finite value means no fans.
std::pair<std::size_t, double> fanCount(SMC &smc) {
    double count = 0;
    try {
        count = std::trunc(smc.readDouble(kFanCount));
    } catch (const SMCError &) {
        return {0, 0};
    }
    if (!std::isfinite(count) || count < 1) {
        return {0, 0};
    }
    return {static_cast<std::size_t>(std::min(count, double(kMaxFans))), count};
}

}  // namespace

std::optional<std::string> fanName(SMC &smc, FourCC key) {
    SMCValue value;
    try {
        value = smc.read(key);
    } catch (const SMCError &) {
        return std::nullopt;
    }
    if (value.bytes.size() <= 4) {
        return std::nullopt;
    }
    auto begin = value.bytes.begin() + 4;
    auto end = std::find(begin, value.bytes.end(), std::uint8_t{0});
    std::string name = text::utf8Repaired(std::string(begin, end));
    std::size_t first = name.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::nullopt;
    }
    return name.substr(first, name.find_last_not_of(" \t") - first + 1);
}

Discovery discover(SMC &smc, const std::string &model, std::optional<std::uint32_t> keyCount,
                   const SystemAccess &system) {
    Discovery discovery;
    discovery.model = model;
    discovery.keyCount = keyCount ? *keyCount : smc.keyCount();

    // The keys worth keeping, with the value each read at the scan; named once the
    // machine's family is known.
    struct Candidate {
        SMCKeyInfo info;
        Quantity quantity;
        double value;
    };
    std::vector<Candidate> candidates;
    for (std::uint32_t i = 0; i < discovery.keyCount; ++i) {
        std::uint32_t raw = 0;
        if (smc_key_at_index(smc.conn(), i, &raw) != SMC_OK) {
            continue;
        }
        FourCC key(raw);
        if (key == kForceKey) {
            discovery.fanForceKey = true;
            continue;
        }
        if (key == kTestKey) {
            discovery.fanTestKey = true;
            continue;
        }
        std::optional<Quantity> quantity = Catalog::quantity(key.description());
        if (!quantity) {
            continue;
        }
        SMCKeyInfo info;
        double value = 0;
        try {
            info = smc.info(key);
            value = smc.readDouble(key);
        } catch (const SMCError &) {
            continue;
        }
        if (Catalog::plausible(value, *quantity) && !isIntegerType(info.type)) {
            candidates.push_back({info, *quantity, value});
        }
    }

    // A lone fan is just "Fan", however the count is encoded (a flt FNum of 1.5 is one fan).
    auto [count, uncapped] = fanCount(smc);
    for (std::size_t i = 0; i < count; ++i) {
        FanDescriptor fan{static_cast<std::int64_t>(i), "", false};
        std::optional<std::string> name = fanName(smc, FourCC(csmc::fanKey(i, "ID")));
        fan.name = name ? *name : (uncapped == 1 ? "Fan" : fmt::format("Fan {}", i + 1));
        smc_key_info info{};
        fan.hasModeKey = smc_key_info_get(smc.conn(), fan.modeKey().rawValue, &info) == SMC_OK;
        discovery.fans.push_back(std::move(fan));
    }

    std::unique_ptr<csmc::TemperatureServices> services = temperatureServices(smc, system);
    bool chipServices = services && services->chipServices();
    smc_hid *hid = csmc::openHid(std::move(services));
    discovery.hid = smc_hid_count(hid) > 0;
    smc_hid_close(hid);

    // The family, decided once: Apple silicon has the fan test key or its chip's own sensor
    // services. On Intel machines keys shaped like Apple silicon's per-core temperatures
    // (Tp.., Te.., Tg..) are other sensors (power supply, PCIe slots), so they are named
    // and grouped like any unlisted key and never steer fan control.
    bool appleSilicon = discovery.fanTestKey || (discovery.hid && chipServices);

    std::map<std::uint32_t, double> valueByKey;
    for (const Candidate &c : candidates) {
        std::string text = c.info.key.description();
        Catalog::Name name = Catalog::name(text, c.quantity);
        SensorGroup group = c.quantity == Quantity::temperature
                                ? Catalog::temperature(text).entry.group
                                : SensorGroup::other;
        if (!appleSilicon && c.quantity == Quantity::temperature &&
            Catalog::isPerCorePattern(text)) {
            name = {text, false};
            group = SensorGroup::other;
        }
        discovery.sensors.push_back({c.info, c.quantity, name.name, group, name.known,
                                     name.known && Catalog::isEssential(text)});
        valueByKey[c.info.key.rawValue] = c.value;
    }
    promoteEssentials(discovery.sensors, valueByKey);
    return discovery;
}

std::string cachePath(const SystemAccess &system) {
    return system.paths().discoveryCache();
}

void clearCache(const SystemAccess &system) {
    system.files->remove(cachePath(system));
}

Discovery loadDiscovery(SMC &smc, bool useCache, const SystemAccess &system) {
    std::string model = machineModel(&smc, system.paths(), *system.files);
    std::uint32_t keyCount = smc.keyCount();
    std::string path = cachePath(system);
    if (useCache) {
        // Only a file of our own: a cache planted by someone else would name the sensors
        // and seed the channel with made-up key information.
        if (auto bytes = system.files->readOwn(path, kMaxCacheBytes)) {
            std::optional<Discovery> cached = Discovery::fromCache(*bytes);
            if (cached && cached->model == model && cached->keyCount == keyCount) {
                for (const SensorDescriptor &sensor : cached->sensors) {
                    smc.seed(sensor.info);
                }
                return *cached;
            }
        }
    }
    Discovery discovery = discover(smc, model, keyCount, system);
    if (useCache) {
        // A cache that cannot be written only costs the next run a scan.
        if (system.files->createDirectories(platform::parentDirectory(path), 0755).ok()) {
            system.files->writeAtomic(path, discovery.cacheData(), 0644);
        }
    }
    return discovery;
}

Sampler::Sampler(std::shared_ptr<SMC> smc, SamplerScope scope, bool useCache,
                 const SystemAccess &system)
    : scope(scope), smc_(smc ? std::move(smc) : std::make_shared<SMC>()), system_(system) {
    discovery_ = loadDiscovery(*smc_, useCache, system_);
    if (discovery_.hid) {
        hid_ = csmc::openHid(temperatureServices(*smc_, system_));
        hidBuffer_.assign(static_cast<std::size_t>(smc_hid_count(hid_)), smc_hid_reading{});
    }
}

Sampler::~Sampler() {
    smc_hid_close(hid_);
}

std::optional<double> Sampler::readNumber(FourCC key) {
    double value = 0;
    std::int32_t status = smc_read_double(smc_->conn(), key.rawValue, &value);
    if (status != SMC_OK) {
        if (!lastFailure_) {
            SMCError error = SMCError::fromStatus(status, key, FourCC::unknown);
            if (error.concernsConnection()) {
                lastFailure_ = error.withDetail(smc_error_detail());
            }
        }
        return std::nullopt;
    }
    return value;
}

Snapshot Sampler::sample() {
    lastFailure_.reset();
    std::vector<Reading> temperatures, power, voltages, currents;
    for (const SensorDescriptor &sensor : discovery_.sensors) {
        if ((scope == SamplerScope::essential && !sensor.essential) ||
            (scope == SamplerScope::known && !sensor.known)) {
            continue;
        }
        switch (sensor.quantity) {
            case Quantity::temperature:
                if (!parts.contains(SamplerParts::temperatures) ||
                    (groups && !groups->contains(sensor.group))) {
                    continue;
                }
                break;
            case Quantity::power:
                if (!parts.contains(SamplerParts::power)) {
                    continue;
                }
                break;
            case Quantity::voltage:
            case Quantity::current:
                if (!parts.contains(SamplerParts::electrical)) {
                    continue;
                }
                break;
        }
        std::optional<double> value = readNumber(sensor.info.key);
        if (!value) {
            continue;
        }
        // Catalog plausibility for temperatures at every sample; other quantities as read.
        if (sensor.quantity == Quantity::temperature &&
            !Catalog::plausible(*value, Quantity::temperature)) {
            continue;
        }
        Reading reading{sensor.info.key.description(), sensor.name, sensor.group, *value,
                        sensor.known};
        switch (sensor.quantity) {
            case Quantity::temperature:
                temperatures.push_back(std::move(reading));
                break;
            case Quantity::power:
                power.push_back(std::move(reading));
                break;
            case Quantity::voltage:
                voltages.push_back(std::move(reading));
                break;
            case Quantity::current:
                currents.push_back(std::move(reading));
                break;
        }
    }

    if (hid_ != nullptr && !hidBuffer_.empty() && parts.contains(SamplerParts::temperatures) &&
        scope != SamplerScope::essential) {
        std::int32_t filled =
            smc_hid_read(hid_, hidBuffer_.data(), static_cast<std::int32_t>(hidBuffer_.size()));
        std::map<std::string, int> seen;
        for (std::int32_t i = 0; i < filled; ++i) {
            const smc_hid_reading &record = hidBuffer_[static_cast<std::size_t>(i)];
            std::string name = text::utf8Repaired(
                std::string(record.name, strnlen(record.name, sizeof record.name)));
            int occurrence = ++seen[name];
            std::string display = occurrence == 1 ? name : fmt::format("{} {}", name, occurrence);
            temperatures.push_back(
                {"hid:" + display, display, Catalog::hidGroup(name), record.celsius, true});
        }
    }

    std::vector<FanReading> fans;
    if (parts.contains(SamplerParts::fans)) {
        fans = readFans();
    }

    std::optional<BatteryInfo> battery;
    if (parts.contains(SamplerParts::battery)) {
        battery = Battery::read(smc_.get(), system_);
        if (battery && !battery->temperature) {
            auto reading = std::find_if(temperatures.begin(), temperatures.end(),
                                        [&](const Reading &r) { return r.key == "TB0T"; });
            battery->temperature = reading != temperatures.end() ? std::optional(reading->value)
                                                                 : readNumber(kBatteryTemperature);
        }
    }
    return Snapshot(system_.clock->now(), std::move(temperatures), std::move(fans),
                    std::move(power), std::move(voltages), std::move(currents), std::move(battery));
}

std::vector<FanReading> Sampler::readFans() {
    const std::vector<FanDescriptor> &descriptors = discovery_.fans;
    if (descriptors.empty()) {
        return {};
    }
    auto now = system_.clock->monotonic();
    if (!fanLimitsRead_ ||
        std::chrono::duration<double>(now - *fanLimitsRead_).count() > fanLimitRefresh) {
        for (const FanDescriptor &fan : descriptors) {
            fanLimits_[fan.index] = {readNumber(fan.minKey()).value_or(0),
                                     readNumber(fan.maxKey()).value_or(0)};
        }
        fanLimitsRead_ = now;
    }

    // The force mask as an integer; a value that is not a finite number in the 64-bit
    // range is treated as no mask at all.
    std::optional<std::int64_t> mask;
    if (discovery_.fanForceKey) {
        std::optional<double> raw = readNumber(kForceKey);
        mask = raw ? numbers::truncatedInt64(*raw) : std::nullopt;
    }

    std::vector<FanReading> readings;
    for (const FanDescriptor &fan : descriptors) {
        std::optional<double> actual = readNumber(fan.actualKey());
        if (!actual) {
            continue;  // a fan without a speed is left out of this sample
        }
        bool manual = fan.hasModeKey && readNumber(fan.modeKey()) == 1.0;
        if (!manual && mask && fan.index >= 0 && fan.index < 64) {
            manual = (static_cast<std::uint64_t>(*mask) >> fan.index) & 1;
        }
        auto limits = fanLimits_.find(fan.index);
        FanReading reading;
        reading.id = fan.index;
        reading.name = fan.name;
        reading.rpm = std::max(*actual, 0.0);
        reading.min = limits == fanLimits_.end() ? 0 : limits->second.first;
        reading.max = limits == fanLimits_.end() ? 0 : limits->second.second;
        reading.manual = manual;
        if (manual) {
            reading.target = readNumber(fan.targetKey());
        }
        readings.push_back(std::move(reading));
    }
    return readings;
}

}  // namespace ostrel
