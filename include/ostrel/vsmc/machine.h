// The virtual Mac's SMC: a sorted key table that answers the 80-byte parameter record the
// way a real SMC does.
//
// The model performs no I/O and starts no threads: the in-process `memory` transport and
// the `ostrel-vsmc` server both drive it, and tests inspect it directly. It is not
// thread-safe; whoever shares one machine between threads serialises the calls.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "csmc/smc.h"
#include "ostrel/vsmc/profile.h"

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
    // the profile lacks it).
    explicit Machine(const Profile &profile);

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

    // The journal of every exchange since construction or the last clearJournal().
    const std::vector<ExchangeRecord> &journal() const { return journal_; }
    void clearJournal();
    // Exchanges per command since construction or the last clearJournal().
    std::uint64_t count(std::uint8_t command) const { return counts_[command]; }
    std::uint64_t totalExchanges() const;

  private:
    std::optional<Fault> takeFault(const smc_param &in);
    std::uint32_t answer(const smc_param &in, smc_param &out, const Caller &caller,
                         ExchangeRecord &record);

    std::string model_;
    KeyTable keys_;
    bool refuseUnprivilegedWrites_ = false;
    std::deque<Fault> faults_;
    std::vector<ExchangeRecord> journal_;
    std::array<std::uint64_t, 256> counts_{};
};

}  // namespace ostrel::vsmc
