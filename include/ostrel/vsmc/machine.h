// The virtual Mac: a sorted SMC key table that answers the 80-byte parameter record the
// way a real SMC does, the firmware's write rules for the three kinds of fan control, and
// the physics behind the keys (docs/vsmc-physics.md).
//
// The model performs no I/O and starts no threads: the in-process `memory` transport and
// the `ostrel-vsmc` server both drive it, and tests inspect it directly. Time passes only
// when the owner calls advance(); until then every key holds its profile value. It is not
// thread-safe; whoever shares one machine between threads serialises the calls.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csmc/keys.h"
#include "csmc/smc.h"
#include "csmc/transport.h"
#include "ostrel/platform/json.h"
#include "ostrel/vsmc/profile.h"
#include "ostrel/vsmc/simulation.h"

namespace ostrel::vsmc {

// The key table, kept sorted by code (byte-wise, first character most significant), as the
// SMC keeps it; index order is key order.
class KeyTable {
  public:
    KeyTable() = default;
    explicit KeyTable(std::vector<KeyEntry> entries);  // sorts; later duplicates replace

    std::size_t size() const { return entries_.size(); }
    const KeyEntry &at(std::size_t index) const { return entries_.at(index); }
    const KeyEntry *find(std::uint32_t key) const;
    KeyEntry *find(std::uint32_t key);
    void put(const KeyEntry &entry);  // inserts or replaces
    bool erase(std::uint32_t key);    // true when the key existed
    const std::vector<KeyEntry> &entries() const { return entries_; }

  private:
    std::vector<KeyEntry> entries_;
};

// Who is asking: the kernel refuses writes from unprivileged callers when the machine
// requires privilege for writes.
struct Caller {
    bool privileged = true;
};

// One exchange as the machine saw it.
struct ExchangeRecord {
    std::uint8_t command = 0;
    std::uint32_t key = 0;            // the input key; for key-at-index, the key found (0 if none)
    std::uint32_t index = 0;          // key-at-index only
    std::vector<std::uint8_t> bytes;  // written bytes (write) or returned value (read)
    std::uint32_t kern = 0;           // 0, or the IOKit code the exchange returned
    std::uint8_t result = 0;          // the SMC's result byte
    bool injected = false;            // the outcome came from an injected fault
};

// One write as the machine saw it, for the status report.
struct WriteRecord {
    double time = 0;  // simulated seconds
    std::uint32_t key = 0;
    std::vector<std::uint8_t> bytes;
    bool privileged = true;
    std::uint32_t kern = 0;
    std::uint8_t result = 0;
};

// How the machine lets software take its fans, from its keys.
enum class FanControlKind {
    none,       // no fan keys that switch modes
    forceMask,  // "FS! ": bit n puts fan n in manual mode
    modeKeys,   // "F0Md" ...: 0 automatic, 1 manual
    testKey,    // mode keys honoured only while "Ftst" is 1, after a few refusals
};

// The result byte of a mode write the firmware refuses (test key not set, or not yet
// honoured). Any result other than 0 and 0x84 is a firmware refusal to the channel.
inline constexpr std::uint8_t kResultModeLocked = 0x82;

using csmc::fanKey;

// A planned failure: the next `times` exchanges that match get `kern` (when non-zero) or
// else the result byte `result`, and have no other effect.
struct Fault {
    std::optional<std::uint32_t> key;     // match this input key (any when absent)
    std::optional<std::uint8_t> command;  // match this command (any when absent)
    std::uint32_t times = 1;
    std::uint32_t kern = 0;
    std::uint8_t result = 0;
};

class Machine {
  public:
    // Builds the machine from a profile. "#KEY" is set to the number of keys (added when
    // the profile lacks it). The physics starts from the temperatures, fan speeds and
    // battery the profile's keys show; `seed` chooses the sensor noise.
    explicit Machine(const Profile &profile, std::uint64_t seed = 0);

    // Answers one parameter record. Returns 0 or an IOKit code; `out` must be zeroed.
    std::uint32_t exchange(const smc_param &in, smc_param &out, const Caller &caller = {});

    const std::string &model() const { return model_; }
    KeyTable &keys() { return keys_; }
    const KeyTable &keys() const { return keys_; }

    // When set, writes from unprivileged callers get SMC_KERN_NOT_PRIVILEGED, as the kernel
    // answers a process that is not root.
    void setRefuseUnprivilegedWrites(bool refuse) { refuseUnprivilegedWrites_ = refuse; }

    void injectFault(const Fault &fault) { faults_.push_back(fault); }
    void clearFaults() { faults_.clear(); }
    const std::deque<Fault> &faults() const { return faults_; }

    // The latest exchanges since construction or the last clearJournal(): at least the
    // last `limit` of them and never more than twice that (the oldest go first), so a
    // machine that serves millions of reads holds a few megabytes of journal at most.
    static constexpr std::size_t kJournalLimit = 10000;
    const std::vector<ExchangeRecord> &journal() const { return journal_; }
    void clearJournal();
    void setJournalLimit(std::size_t limit) { journalLimit_ = std::max<std::size_t>(limit, 1); }
    // Exchanges per command since construction or the last clearJournal().
    std::uint64_t count(std::uint8_t command) const { return counts_[command]; }
    std::uint64_t totalExchanges() const;
    // The latest writes (at most kWriteLogSize), oldest first, and how many there were.
    static constexpr std::size_t kWriteLogSize = 256;
    const std::deque<WriteRecord> &writes() const { return writes_; }
    std::uint64_t writeCount() const { return writeCount_; }

    // --- time and physics ---

    // Lets `seconds` of simulated time pass (negative counts as 0): the physics runs in
    // fixed steps, the remainder is carried to the next call, so the outcome depends only
    // on the total time and not on how it was sliced. Then every bound key, the fans' keys
    // and the sensor services show the new state.
    void advance(double seconds);
    double time() const { return simulation_.time(); }
    const Simulation &simulation() const { return simulation_; }
    std::uint64_t seed() const { return seed_; }
    void setLoad(double cpu, double gpu) { simulation_.setLoad(cpu, gpu); }
    void setAmbient(double celsius) { simulation_.setAmbient(celsius); }
    void setExternalPower(bool connected) { simulation_.setExternalPower(connected); }
    void play(Scenario scenario) { simulation_.play(std::move(scenario)); }
    void stopScenario() { simulation_.stopScenario(); }

    // The temperature-sensor services with their current readings, in profile order.
    std::vector<csmc::TemperatureSensor> temperatureSensors() const;
    // The battery's property dictionary, or a JSON null when the machine has none.
    nlohmann::json batteryProperties() const;

    // --- fans and firmware ---

    FanControlKind fanControl() const { return fanControl_; }
    std::size_t fanCount() const { return fans_.size(); }
    // A key's value decoded as a number; nothing when the key is missing or its type is
    // not numeric.
    std::optional<double> number(std::uint32_t key) const;

    // Whether the firmware currently lets fan `index` follow its written target.
    bool fanManual(std::size_t index) const;
    // Mode writes the firmware refuses after the test key is next set to 1.
    void setUnlockRefusals(std::uint32_t refusals) { unlockRefusals_ = refusals; }
    std::uint32_t unlockRefusalsLeft() const { return refusalsLeft_; }

    // --- faults beyond single exchanges ---

    // Takes a key out of the table (it then reads as unknown) or puts it back; false when
    // there is nothing to do. "#KEY" follows.
    bool vanishKey(std::uint32_t key);
    bool restoreKey(std::uint32_t key);
    std::vector<std::uint32_t> vanishedKeys() const;
    // Makes the fan's limit keys read the given values, whatever their attributes say;
    // false when the fan or a key is missing or a value does not fit the key's type.
    bool setFanLimits(std::size_t index, double min, double max);
    // The firmware takes the fan back: it runs on its own curve again, as after a thermal
    // event or a firmware reset; false for an unknown fan.
    bool takeOverFan(std::size_t index);
    // The machine slept and woke: every fan is automatic again and the test key is cleared,
    // as firmware and kernel leave them after a resume. Simulated time does not move.
    void sleepAndWake();
    // A stalled fan stops turning, whatever it is told; false for an unknown fan.
    bool setFanStalled(std::size_t index, bool stalled);

  private:
    struct FanKeys {
        std::uint32_t actual, target, mode, min, max;
    };

    void findFans();
    void bindKeys(const std::vector<Binding> &explicitBindings);
    SimulationState initialState(const Profile &profile) const;
    std::optional<Fault> takeFault(const smc_param &in);
    std::uint32_t answer(const smc_param &in, smc_param &out, const Caller &caller,
                         ExchangeRecord &record);
    std::optional<std::uint8_t> refuseWrite(std::uint32_t key);
    void afterWrite(std::uint32_t key, double before);
    bool store(std::uint32_t key, double value);
    void updateKeyCount();
    void publish();
    std::vector<FanCommand> fanCommands() const;

    std::string model_;
    KeyTable keys_;
    bool refuseUnprivilegedWrites_ = false;
    std::deque<Fault> faults_;
    std::vector<ExchangeRecord> journal_;
    std::size_t journalLimit_ = kJournalLimit;
    std::array<std::uint64_t, 256> counts_{};
    std::deque<WriteRecord> writes_;
    std::uint64_t writeCount_ = 0;

    std::uint64_t seed_;
    FanControlKind fanControl_ = FanControlKind::none;
    std::vector<FanKeys> fans_;
    std::vector<Binding> bindings_;
    std::vector<SensorService> sensors_;
    std::map<std::uint32_t, KeyEntry> vanished_;
    std::uint32_t unlockRefusals_ = 0;
    std::uint32_t refusalsLeft_ = 0;
    Simulation simulation_;
    double pending_ = 0;  // simulated seconds not yet stepped
};

// The machine's true state as `ostrel-vsmc ctl status --json` reports it (documented in
// docs/vsmc-protocol.md).
Json statusJson(const Machine &machine);

}  // namespace ostrel::vsmc
