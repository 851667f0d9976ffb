// Test helpers: virtual machines from inline profile text, and channel connections on them.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "csmc/smc.h"
#include "csmc/transport.h"
#include "ostrel/smc.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/memory_transport.h"

namespace ostrel::test {

// The SMCError `operation` throws; when it throws none, a test failure and noService.
template <typename Operation>
SMCError errorOf(Operation operation) {
    try {
        operation();
    } catch (const SMCError &error) {
        return error;
    }
    ADD_FAILURE() << "no error";
    return SMCError::noService();
}

// A machine from key rows (the model line is added).
inline vsmc::Machine machineFromRows(const std::string &rows, const std::string &model = "Test,1") {
    return vsmc::Machine(vsmc::parseProfile("model " + model + "\n" + rows, "test"));
}

inline vsmc::Machine builtinMachine(const std::string &name) {
    return vsmc::Machine(vsmc::builtinProfile(name));
}

// A virtual SMC that, like real hardware, publishes nothing but its key table: the model,
// temperature services and battery then come from the (fake) system files.
class BareMemoryTransport final : public csmc::Transport {
  public:
    explicit BareMemoryTransport(vsmc::Machine &machine) : inner_(machine) {}
    std::uint32_t exchange(const smc_param &in, smc_param &out) override {
        return inner_.exchange(in, out);
    }

  private:
    vsmc::MemoryTransport inner_;
};

// A channel connection on a machine owned by the test; closed with the object.
class Connection {
  public:
    explicit Connection(vsmc::Machine &machine, vsmc::Caller caller = {}) {
        csmc::openConnection(&conn_, std::make_unique<vsmc::MemoryTransport>(machine, caller));
    }
    ~Connection() { smc_close(conn_); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    smc_conn *get() const { return conn_; }

  private:
    smc_conn *conn_ = nullptr;
};

// A key given as its code or as its text.
struct Key {
    Key(std::uint32_t code) : code(code) {}
    Key(const char *text) : code(smc_fourcc(text)) {}
    std::uint32_t code;
};

// Writes a number to a key the way the kit does: look up its type, encode, write. Returns
// the channel's status, or SMC_ETYPE when the number does not fit the key's type.
inline std::int32_t writeNumber(smc_conn *conn, Key key, double value) {
    smc_key_info info{};
    std::uint8_t bytes[SMC_MAX_DATA];
    std::int32_t status = smc_key_info_get(conn, key.code, &info);
    if (status != SMC_OK) {
        return status;
    }
    return smc_encode_double(info.type, info.size, bytes, value)
               ? smc_write(conn, key.code, bytes, info.size)
               : SMC_ETYPE;
}

// Reads a key as a number through the channel; a failed read fails the test and gives NaN.
inline double readNumber(smc_conn *conn, Key key) {
    double value = std::nan("");
    EXPECT_EQ(smc_read_double(conn, key.code, &value), SMC_OK) << "reading a key";
    return value;
}

// Sets a key of the machine to a number in the key's own type, behind the channel's back
// (read-only keys included), as the hardware would change it.
inline void setNumber(vsmc::Machine &machine, const char *key, double value) {
    vsmc::KeyEntry *entry = machine.keys().find(smc_fourcc(key));
    smc_encode_double(entry->type, entry->size, entry->bytes.data(), value);
}

// A write the machine accepted: the key's text and the number written.
using Write = std::pair<std::string, double>;

// The writes the machine accepted since its journal was last cleared, decoded with each
// key's type, in order; clears the journal.
inline std::vector<Write> takeWrites(vsmc::Machine &machine) {
    std::vector<Write> out;
    for (const vsmc::ExchangeRecord &r : machine.journal()) {
        if (r.command != SMC_CMD_WRITE || r.kern != 0 || r.result != 0) {
            continue;
        }
        const vsmc::KeyEntry *entry = machine.keys().find(r.key);
        double value = 0;
        smc_decode_double(entry->type, r.bytes.data(), static_cast<std::uint32_t>(r.bytes.size()),
                          &value);
        std::string key = {char(r.key >> 24), char(r.key >> 16), char(r.key >> 8), char(r.key)};
        out.emplace_back(key, value);
    }
    machine.clearJournal();
    return out;
}

}  // namespace ostrel::test
