#include "ostrel/vsmc/machine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace ostrel::vsmc {

namespace {

constexpr std::uint8_t kReadable = 0x80;
constexpr std::uint8_t kWritable = 0x40;
// Key-information answers never show the "constant" bit.
constexpr std::uint8_t kConstant = 0x08;

const std::uint32_t kKeyCount = smc_fourcc("#KEY");
using csmc::kTestKey;
constexpr std::uint32_t kForceMask = csmc::kForceMaskKey;
constexpr std::size_t kMaxFans = 16;
constexpr double kUnfitted = -100;

bool byKey(const KeyEntry &a, const KeyEntry &b) {
    return a.key < b.key;
}

}  // namespace

KeyTable::KeyTable(std::vector<KeyEntry> entries) {
    for (const KeyEntry &entry : entries) {
        put(entry);
    }
}

const KeyEntry *KeyTable::find(std::uint32_t key) const {
    auto it = std::lower_bound(entries_.begin(), entries_.end(), KeyEntry{key}, byKey);
    return it != entries_.end() && it->key == key ? &*it : nullptr;
}

KeyEntry *KeyTable::find(std::uint32_t key) {
    return const_cast<KeyEntry *>(std::as_const(*this).find(key));
}

void KeyTable::put(const KeyEntry &entry) {
    auto it = std::lower_bound(entries_.begin(), entries_.end(), entry, byKey);
    if (it != entries_.end() && it->key == entry.key) {
        *it = entry;
    } else {
        entries_.insert(it, entry);
    }
}

bool KeyTable::erase(std::uint32_t key) {
    auto it = std::lower_bound(entries_.begin(), entries_.end(), KeyEntry{key}, byKey);
    if (it == entries_.end() || it->key != key) {
        return false;
    }
    entries_.erase(it);
    return true;
}

Machine::Machine(const Profile &profile, std::uint64_t seed)
    : model_(profile.model),
      keys_(profile.keys),
      seed_(seed),
      sensors_(profile.sensors),
      unlockRefusals_(static_cast<std::uint32_t>(profile.params.unlockRefusals)),
      simulation_(profile.params, SimulationState{}) {
    if (keys_.find(kKeyCount) == nullptr) {
        keys_.put(KeyEntry{kKeyCount, smc_fourcc("ui32"), 4, kReadable, {}});
    }
    updateKeyCount();
    findFans();
    bindKeys(profile.bindings);
    simulation_ = Simulation(profile.params, initialState(profile));
    double hottest = -1e9;
    for (const Binding &b : bindings_) {
        if (b.source == Source::cpu && b.scale == 1) {
            hottest = std::max(hottest, b.offset);
        }
    }
    simulation_.setHottestOffset(hottest > -1e9 ? hottest : 0.0);
}

void Machine::findFans() {
    std::size_t count = 0;
    if (auto fnum = number(smc_fourcc("FNum"))) {
        count = static_cast<std::size_t>(std::clamp(*fnum, 0.0, double(kMaxFans)));
    } else {
        while (count < kMaxFans && keys_.find(fanKey(count, "Ac")) != nullptr) {
            ++count;
        }
    }
    bool modeKeys = false;
    for (std::size_t i = 0; i < count; ++i) {
        fans_.push_back(
            {fanKey(i, "Ac"), fanKey(i, "Tg"), fanKey(i, "Md"), fanKey(i, "Mn"), fanKey(i, "Mx")});
        modeKeys = modeKeys || keys_.find(fans_.back().mode) != nullptr;
    }
    if (modeKeys) {
        fanControl_ =
            keys_.find(kTestKey) != nullptr ? FanControlKind::testKey : FanControlKind::modeKeys;
    } else if (keys_.find(kForceMask) != nullptr) {
        fanControl_ = FanControlKind::forceMask;
    }
}

void Machine::bindKeys(const std::vector<Binding> &explicitBindings) {
    std::map<std::uint32_t, Binding> chosen;
    for (const Binding &b : explicitBindings) {
        chosen[b.key] = b;
    }
    for (const KeyEntry &entry : keys_.entries()) {
        auto it = chosen.find(entry.key);
        std::optional<Binding> binding =
            it != chosen.end() ? std::optional(it->second) : defaultBinding(entry.key, entry.type);
        if (!binding || binding->source == Source::none) {
            continue;
        }
        // Unfitted sensors read -127 on a real Mac and never change.
        auto value = number(entry.key);
        if (!value || (isTemperature(binding->source) && *value <= kUnfitted)) {
            continue;
        }
        bindings_.push_back(*binding);
    }
}

SimulationState Machine::initialState(const Profile &profile) const {
    const MachineParams &p = profile.params;
    SimulationState s;
    s.cpuLoad = p.cpuLoad;
    s.gpuLoad = p.gpuLoad;
    s.ambient = p.ambient;
    s.cpuPower = p.cpuIdlePower + (p.cpuMaxPower - p.cpuIdlePower) * p.cpuLoad;
    s.gpuPower = p.gpuIdlePower + (p.gpuMaxPower - p.gpuIdlePower) * p.gpuLoad;

    // Each node starts where the keys on it say it is; nodes without keys between the
    // CPU and the room.
    std::array<double, kNodeCount> sum{};
    std::array<int, kNodeCount> n{};
    for (const Binding &b : bindings_) {
        if (!isTemperature(b.source) || b.source == Source::ambient || b.scale == 0) {
            continue;
        }
        auto node = static_cast<std::size_t>(b.source) - static_cast<std::size_t>(Source::cpu);
        sum[node] += (*number(b.key) - b.offset) / b.scale;
        ++n[node];
    }
    auto known = [&](Node node) { return n[static_cast<std::size_t>(node)] > 0; };
    auto mean = [&](Node node, double fallback) {
        auto i = static_cast<std::size_t>(node);
        return n[i] > 0 ? sum[i] / n[i] : fallback;
    };
    double cpu =
        mean(Node::cpu, known(Node::proximity) ? mean(Node::proximity, 0) + 5 : p.ambient + 20);
    double rise = cpu - p.ambient;
    s.temperature = {cpu,
                     mean(Node::gpu, cpu - 3),
                     mean(Node::proximity, cpu - 5),
                     mean(Node::heatsink, p.ambient + rise * 0.6),
                     mean(Node::board, p.ambient + rise * 0.4),
                     0};
    s.temperature[static_cast<std::size_t>(Node::battery)] =
        mean(Node::battery, s.node(Node::board) - 3);

    for (const FanKeys &keys : fans_) {
        FanState fan;
        fan.hardwareMin = std::max(0.0, number(keys.min).value_or(0));
        fan.hardwareMax = std::max(fan.hardwareMin, number(keys.max).value_or(6000));
        fan.actual = std::max(0.0, number(keys.actual).value_or(fan.hardwareMin));
        fan.target = number(keys.target).value_or(fan.actual);
        fan.spinning = p.fanStop <= 0 || fan.actual > 0;
        s.fans.push_back(fan);
    }

    const BatteryParams &bp = profile.battery;
    BatteryState &b = s.battery;
    b.present = bp.present || keys_.find(smc_fourcc("B0AV")) != nullptr;
    if (b.present) {
        b.design = bp.designCapacity.value_or(number(smc_fourcc("B0DC")).value_or(5000));
        b.full = bp.fullCapacity.value_or(number(smc_fourcc("B0FC")).value_or(b.design));
        b.remaining =
            std::min(b.full, bp.remaining.value_or(number(smc_fourcc("B0RM")).value_or(b.full)));
        b.cycles = bp.cycles.value_or(number(smc_fourcc("B0CT")).value_or(0));
        b.cells = bp.cells.value_or(3);
        double current = number(smc_fourcc("B0AC")).value_or(0);
        b.chargeCurrent = bp.chargeCurrent.value_or(current > 0 ? current : 2000);
        b.external = bp.external.value_or(number(smc_fourcc("ACIN")).value_or(1)) != 0;
        b.percentCapacity = bp.percentCapacity.value_or(0) != 0;
        b.milliamps = current;
        double soc = b.full > 0 ? b.remaining / b.full : 0;
        b.volts = number(smc_fourcc("B0AV")).value_or(b.cells * (3.6 + 0.55 * soc) * 1000) / 1000;
    }
    return s;
}

void Machine::updateKeyCount() {
    auto n = static_cast<std::uint32_t>(keys_.size());
    KeyEntry *count = keys_.find(kKeyCount);
    count->bytes = {static_cast<std::uint8_t>(n >> 24), static_cast<std::uint8_t>(n >> 16),
                    static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)};
}

void Machine::clearJournal() {
    journal_.clear();
    counts_.fill(0);
}

std::uint64_t Machine::totalExchanges() const {
    std::uint64_t total = 0;
    for (std::uint64_t c : counts_) {
        total += c;
    }
    return total;
}

std::optional<Fault> Machine::takeFault(const smc_param &in) {
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if ((it->key && *it->key != in.key) || (it->command && *it->command != in.command)) {
            continue;
        }
        Fault fault = *it;
        if (--it->times == 0) {
            faults_.erase(it);
        }
        return fault;
    }
    return std::nullopt;
}

std::uint32_t Machine::exchange(const smc_param &in, smc_param &out, const Caller &caller) {
    ExchangeRecord record;
    record.command = in.command;
    record.key = in.key;
    ++counts_[in.command];
    if (in.command == SMC_CMD_WRITE) {
        // Kept even when a fault swallows the write, so the log shows what was tried.
        record.bytes.assign(in.bytes, in.bytes + std::min<std::size_t>(in.data_size, SMC_MAX_DATA));
    }
    if (auto fault = takeFault(in)) {
        record.injected = true;
        record.kern = fault->kern;
        record.result = fault->kern == 0 ? fault->result : 0;
        out.result = record.result;
    } else {
        record.kern = answer(in, out, caller, record);
        record.result = out.result;
    }
    if (in.command == SMC_CMD_WRITE) {
        ++writeCount_;
        writes_.push_back(
            {time(), in.key, record.bytes, caller.privileged, record.kern, record.result});
        if (writes_.size() > kWriteLogSize) {
            writes_.pop_front();
        }
    }
    std::uint32_t kern = record.kern;
    journal_.push_back(std::move(record));
    if (journal_.size() >= 2 * journalLimit_) {
        journal_.erase(journal_.begin(),
                       journal_.end() - static_cast<std::ptrdiff_t>(journalLimit_));
    }
    return kern;
}

std::uint32_t Machine::answer(const smc_param &in, smc_param &out, const Caller &caller,
                              ExchangeRecord &record) {
    switch (in.command) {
        case SMC_CMD_KEY_AT_INDEX: {
            record.index = in.index;
            record.key = 0;
            if (in.index >= keys_.size()) {
                out.result = SMC_RESULT_INDEX_RANGE;
                return 0;
            }
            out.key = keys_.at(in.index).key;
            record.key = out.key;
            return 0;
        }
        case SMC_CMD_KEY_INFO: {
            const KeyEntry *entry = keys_.find(in.key);
            if (entry == nullptr) {
                out.result = SMC_RESULT_KEY_NOT_FOUND;
                return 0;
            }
            out.key = in.key;
            out.data_size = entry->size;
            out.data_type = entry->type;
            out.attributes = entry->attributes & static_cast<std::uint8_t>(~kConstant);
            return 0;
        }
        case SMC_CMD_READ: {
            const KeyEntry *entry = keys_.find(in.key);
            if (entry == nullptr) {
                out.result = SMC_RESULT_KEY_NOT_FOUND;
            } else if ((entry->attributes & kReadable) == 0) {
                out.result = SMC_RESULT_NOT_READABLE;
            } else if (in.data_size != entry->size || entry->size > SMC_MAX_DATA) {
                out.result = SMC_RESULT_SIZE_MISMATCH;
            } else {
                out.key = in.key;
                std::memcpy(out.bytes, entry->bytes.data(), entry->size);
                record.bytes.assign(entry->bytes.begin(), entry->bytes.begin() + entry->size);
            }
            return 0;
        }
        case SMC_CMD_WRITE: {
            std::size_t n = std::min<std::size_t>(in.data_size, SMC_MAX_DATA);
            if (refuseUnprivilegedWrites_ && !caller.privileged) {
                return SMC_KERN_NOT_PRIVILEGED;
            }
            KeyEntry *entry = keys_.find(in.key);
            if (entry == nullptr) {
                out.result = SMC_RESULT_KEY_NOT_FOUND;
            } else if ((entry->attributes & kWritable) == 0) {
                out.result = SMC_RESULT_NOT_WRITABLE;
            } else if (in.data_size != entry->size) {
                out.result = SMC_RESULT_SIZE_MISMATCH;
            } else if (auto refusal = refuseWrite(in.key)) {
                out.result = *refusal;
            } else {
                double before = number(in.key).value_or(0);
                std::memcpy(entry->bytes.data(), in.bytes, n);
                afterWrite(in.key, before);
            }
            return 0;
        }
        default:
            return SMC_KERN_BAD_ARGUMENT;
    }
}

// --- firmware ---

std::optional<std::uint8_t> Machine::refuseWrite(std::uint32_t key) {
    if (fanControl_ != FanControlKind::testKey) {
        return std::nullopt;
    }
    bool modeKey = std::any_of(fans_.begin(), fans_.end(),
                               [&](const FanKeys &fan) { return fan.mode == key; });
    if (!modeKey) {
        return std::nullopt;
    }
    if (number(kTestKey).value_or(0) == 0) {
        return kResultModeLocked;
    }
    if (refusalsLeft_ > 0) {
        --refusalsLeft_;
        return kResultModeLocked;
    }
    return std::nullopt;
}

void Machine::afterWrite(std::uint32_t key, double before) {
    if (key != kTestKey || fanControl_ != FanControlKind::testKey) {
        return;
    }
    double now = number(kTestKey).value_or(0);
    if (now != 0 && before == 0) {
        refusalsLeft_ = unlockRefusals_;
    } else if (now == 0) {
        // Clearing the test key hands every fan back to the firmware.
        refusalsLeft_ = 0;
        for (const FanKeys &fan : fans_) {
            store(fan.mode, 0);
        }
    }
}

bool Machine::fanManual(std::size_t index) const {
    if (index >= fans_.size()) {
        return false;
    }
    if (auto mode = number(fans_[index].mode)) {
        return *mode == 1;
    }
    if (auto mask = number(kForceMask); mask && index < 64 && *mask >= 0) {
        return ((static_cast<std::uint64_t>(*mask) >> index) & 1u) != 0;
    }
    return false;
}

std::optional<double> Machine::number(std::uint32_t key) const {
    const KeyEntry *entry = keys_.find(key);
    double value = 0;
    if (entry == nullptr || entry->size > SMC_MAX_DATA ||
        !smc_decode_double(entry->type, entry->bytes.data(), entry->size, &value)) {
        return std::nullopt;
    }
    return value;
}

bool Machine::store(std::uint32_t key, double value) {
    KeyEntry *entry = keys_.find(key);
    std::array<std::uint8_t, SMC_MAX_DATA> bytes{};
    if (entry == nullptr || entry->size > SMC_MAX_DATA ||
        !smc_encode_double(entry->type, entry->size, bytes.data(), value)) {
        return false;
    }
    std::copy(bytes.begin(), bytes.begin() + entry->size, entry->bytes.begin());
    return true;
}

// --- time ---

std::vector<FanCommand> Machine::fanCommands() const {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<FanCommand> commands;
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        commands.push_back({fanManual(i), number(fans_[i].target).value_or(nan),
                            number(fans_[i].min).value_or(nan),
                            number(fans_[i].max).value_or(nan)});
    }
    return commands;
}

void Machine::advance(double seconds) {
    if (seconds > 0) {
        pending_ += seconds;
    }
    // The small allowance keeps 10 x 0.1 s from coming out as 9 steps.
    auto steps = static_cast<std::uint64_t>(std::floor(pending_ / Simulation::kStep + 1e-9));
    pending_ = std::max(0.0, pending_ - static_cast<double>(steps) * Simulation::kStep);
    // Keys change only through exchanges, and none happen during a call, so the commands
    // read once hold for every step.
    std::vector<FanCommand> commands = fanCommands();
    for (std::uint64_t i = 0; i < steps; ++i) {
        simulation_.step(commands);
    }
    publish();
}

void Machine::publish() {
    const SimulationState &state = simulation_.state();
    const MachineParams &p = simulation_.params();
    for (const Binding &b : bindings_) {
        double value = simulation_.value(b.source) * b.scale + b.offset;
        if (isTemperature(b.source)) {
            value += p.sensorNoise * noise(seed_, state.steps, b.key);
        }
        store(b.key, value);
    }
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const FanState &fan = state.fans[i];
        double actual = fan.actual;
        if (actual > 0) {
            actual =
                std::max(0.0, actual + p.fanNoise * noise(seed_, state.steps, fans_[i].actual));
        }
        store(fans_[i].actual, actual);
        if (!fan.manual) {
            store(fans_[i].target, fan.target);
        }
    }
}

std::vector<csmc::TemperatureSensor> Machine::temperatureSensors() const {
    std::vector<csmc::TemperatureSensor> readings;
    double amplitude = simulation_.params().sensorNoise;
    std::uint64_t step = simulation_.state().steps;
    for (std::size_t i = 0; i < sensors_.size(); ++i) {
        const SensorService &sensor = sensors_[i];
        double celsius =
            simulation_.value(sensor.source) + sensor.offset +
            amplitude * noise(seed_, step, 0x80000000u + static_cast<std::uint32_t>(i));
        readings.push_back({sensor.name, celsius});
    }
    return readings;
}

nlohmann::json Machine::batteryProperties() const {
    const BatteryState &b = simulation_.state().battery;
    if (!b.present) {
        return nullptr;
    }
    auto whole = [](double v) { return static_cast<std::int64_t>(std::llround(v)); };
    std::int64_t percent = whole(simulation_.value(Source::batteryPercent));
    std::int64_t millivolts = whole(b.volts * 1000);
    std::int64_t temperature = whole(simulation_.value(Source::battery) * 100);
    // Flags are numbers, as the registry's boolean numbers read.
    return {
        {"CurrentCapacity", b.percentCapacity ? percent : whole(b.remaining)},
        {"MaxCapacity", b.percentCapacity ? 100 : whole(b.full)},
        {"DesignCapacity", whole(b.design)},
        {"AppleRawCurrentCapacity", whole(b.remaining)},
        {"AppleRawMaxCapacity", whole(b.full)},
        {"Voltage", millivolts},
        {"Amperage", whole(b.milliamps)},
        {"Temperature", temperature},
        {"CycleCount", whole(b.cycles)},
        {"IsCharging", b.milliamps > 0 ? 1 : 0},
        {"ExternalConnected", b.external ? 1 : 0},
        {"FullyCharged", b.remaining >= b.full ? 1 : 0},
        {"BatteryData",
         {{"DesignCapacity", whole(b.design)},
          {"CycleCount", whole(b.cycles)},
          {"Voltage", millivolts},
          {"StateOfCharge", percent},
          {"Temperature", temperature}}},
    };
}

// --- faults ---

bool Machine::vanishKey(std::uint32_t key) {
    const KeyEntry *entry = keys_.find(key);
    if (key == kKeyCount || entry == nullptr) {
        return false;
    }
    vanished_[key] = *entry;
    keys_.erase(key);
    updateKeyCount();
    return true;
}

bool Machine::restoreKey(std::uint32_t key) {
    auto it = vanished_.find(key);
    if (it == vanished_.end()) {
        return false;
    }
    keys_.put(it->second);
    vanished_.erase(it);
    updateKeyCount();
    return true;
}

std::vector<std::uint32_t> Machine::vanishedKeys() const {
    std::vector<std::uint32_t> keys;
    for (const auto &[key, entry] : vanished_) {
        keys.push_back(key);
    }
    return keys;
}

bool Machine::setFanLimits(std::size_t index, double min, double max) {
    if (index >= fans_.size()) {
        return false;
    }
    KeyEntry *lo = keys_.find(fans_[index].min);
    KeyEntry *hi = keys_.find(fans_[index].max);
    if (lo == nullptr || hi == nullptr) {
        return false;
    }
    KeyEntry newLo = *lo;
    KeyEntry newHi = *hi;
    newLo.bytes = {};
    newHi.bytes = {};
    if (!smc_encode_double(lo->type, lo->size, newLo.bytes.data(), min) ||
        !smc_encode_double(hi->type, hi->size, newHi.bytes.data(), max)) {
        return false;
    }
    *lo = newLo;
    *hi = newHi;
    return true;
}

bool Machine::takeOverFan(std::size_t index) {
    if (index >= fans_.size()) {
        return false;
    }
    if (keys_.find(fans_[index].mode) != nullptr) {
        store(fans_[index].mode, 0);
    } else if (auto mask = number(kForceMask); mask && index < 64 && *mask >= 0) {
        store(kForceMask, static_cast<double>(static_cast<std::uint64_t>(*mask) &
                                              ~(std::uint64_t{1} << index)));
    }
    return true;
}

void Machine::sleepAndWake() {
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        takeOverFan(i);
    }
    if (fanControl_ == FanControlKind::testKey) {
        store(kTestKey, 0);
        refusalsLeft_ = 0;
    }
}

bool Machine::setFanStalled(std::size_t index, bool stalled) {
    if (index >= fans_.size()) {
        return false;
    }
    simulation_.state().fans[index].stalled = stalled;
    return true;
}

}  // namespace ostrel::vsmc
