#include "ostrel/vsmc/machine.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace ostrel::vsmc {

namespace {

constexpr std::uint8_t kReadable = 0x80;
constexpr std::uint8_t kWritable = 0x40;
// Key-information answers never show the "constant" bit.
constexpr std::uint8_t kConstant = 0x08;

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

Machine::Machine(const Profile &profile) : model_(profile.model), keys_(profile.keys) {
    KeyEntry count{smc_fourcc("#KEY"), smc_fourcc("ui32"), 4, kReadable, {}};
    if (keys_.find(count.key) == nullptr) {
        keys_.put(count);
    }
    auto n = static_cast<std::uint32_t>(keys_.size());
    count.bytes = {static_cast<std::uint8_t>(n >> 24), static_cast<std::uint8_t>(n >> 16),
                   static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)};
    keys_.put(count);
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
    if (auto fault = takeFault(in)) {
        record.injected = true;
        record.kern = fault->kern;
        record.result = fault->kern == 0 ? fault->result : 0;
        out.result = record.result;
    } else {
        record.kern = answer(in, out, caller, record);
        record.result = out.result;
    }
    journal_.push_back(std::move(record));
    return journal_.back().kern;
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
            record.bytes.assign(in.bytes, in.bytes + n);
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
            } else {
                std::memcpy(entry->bytes.data(), in.bytes, n);
            }
            return 0;
        }
        default:
            return SMC_KERN_BAD_ARGUMENT;
    }
}

}  // namespace ostrel::vsmc
