// The channel: commands over the transport and the per-connection key-information cache.

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "csmc/smc.h"
#include "csmc/transport.h"
#include "csmc/transport_registry.h"

namespace {

// One cache slot. key 0 marks an empty slot; present 0 records that the SMC said the key
// does not exist, so asking again costs nothing.
struct CacheSlot {
    std::uint32_t key;
    std::uint32_t type;
    std::uint32_t size;
    std::uint8_t attributes;
    std::uint8_t present;
    std::uint8_t zero[2];
};

constexpr std::uint32_t kInitialCapacity = 2048;

std::uint32_t hashKey(std::uint32_t x) {
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    x ^= x >> 16;
    return x;
}

// The slot holding `key`, or the first empty slot on its probe path. The table is never
// more than half full, so the walk always ends.
CacheSlot *probe(CacheSlot *table, std::uint32_t capacity, std::uint32_t key) {
    std::uint32_t mask = capacity - 1;
    std::uint32_t i = hashKey(key) & mask;
    while (table[i].key != 0 && table[i].key != key) {
        i = (i + 1) & mask;
    }
    return &table[i];
}

thread_local std::string openDetail;
thread_local std::string failureDetail;

}  // namespace

struct smc_conn {
    std::unique_ptr<csmc::Transport> transport;
    std::mutex lock;  // guards table, capacity and count; never held across an exchange
    CacheSlot *table = nullptr;
    std::uint32_t capacity = 0;
    std::uint32_t count = 0;

    ~smc_conn() { delete[] table; }
};

namespace {

// Inserts or replaces a slot; the caller holds the lock. A failed allocation leaves the
// cache as it was: it only costs a repeated query later.
void cachePut(smc_conn *conn, const CacheSlot &slot) {
    if (conn->count * 2 + 2 > conn->capacity) {
        std::uint32_t grown = conn->capacity == 0 ? kInitialCapacity : conn->capacity * 2;
        auto *table = new (std::nothrow) CacheSlot[grown]();
        if (table == nullptr) {
            return;
        }
        for (std::uint32_t i = 0; i < conn->capacity; ++i) {
            if (conn->table[i].key != 0) {
                *probe(table, grown, conn->table[i].key) = conn->table[i];
            }
        }
        delete[] conn->table;
        conn->table = table;
        conn->capacity = grown;
    }
    CacheSlot *dest = probe(conn->table, conn->capacity, slot.key);
    if (dest->key == 0) {
        ++conn->count;
    }
    *dest = slot;
}

// One exchange: 0, SMC_ENOKEY, SMC_ENOTPRIVILEGED, SMC_EFIRMWARE or the kernel code.
std::int32_t smcCall(smc_conn *conn, const smc_param &in, smc_param &out) {
    failureDetail.clear();
    std::uint32_t kern = conn->transport->exchange(in, out);
    if (kern == SMC_KERN_NOT_PRIVILEGED) {
        return SMC_ENOTPRIVILEGED;
    }
    if (kern != 0) {
        return static_cast<std::int32_t>(kern);
    }
    if (out.result == SMC_RESULT_OK) {
        return SMC_OK;
    }
    return out.result == SMC_RESULT_KEY_NOT_FOUND ? SMC_ENOKEY : SMC_EFIRMWARE;
}

std::int32_t failOpen(std::int32_t status, std::string detail) {
    openDetail = std::move(detail);
    return status;
}

}  // namespace

namespace csmc {

std::int32_t openConnection(smc_conn **out, std::unique_ptr<Transport> transport) {
    *out = nullptr;
    auto *conn = new (std::nothrow) smc_conn();
    if (conn == nullptr) {
        return failOpen(SMC_ENOMEM, "out of memory");
    }
    conn->transport = std::move(transport);
    openDetail.clear();
    *out = conn;
    return SMC_OK;
}

std::int32_t openConnection(smc_conn **out, OpenedTransport opened) {
    *out = nullptr;
    if (opened.status != SMC_OK) {
        return failOpen(opened.status, std::move(opened.detail));
    }
    return openConnection(out, std::move(opened.transport));
}

void noteFailure(std::string detail) {
    failureDetail = std::move(detail);
}

Transport &transportOf(smc_conn *conn) {
    return *conn->transport;
}

CacheStats cacheStats(smc_conn *conn) {
    std::lock_guard guard(conn->lock);
    return {conn->capacity, conn->count};
}

}  // namespace csmc

extern "C" {

int32_t smc_open(smc_conn **out) {
    *out = nullptr;
    std::shared_ptr<const csmc::ProcessMachine> machine = csmc::processMachine();
    if (!machine || !machine->transports) {
        return failOpen(SMC_ENOSERVICE,
                        "no SMC transport was configured in this program (its main installs "
                        "one at start-up)");
    }
    return csmc::openConnection(out, machine->transports->open(machine->selector));
}

const char *smc_open_detail(void) {
    return openDetail.c_str();
}

const char *smc_error_detail(void) {
    return failureDetail.c_str();
}

void smc_close(smc_conn *conn) {
    delete conn;
}

int32_t smc_key_info_get(smc_conn *conn, uint32_t key, smc_key_info *out) {
    {
        std::lock_guard guard(conn->lock);
        if (conn->table != nullptr) {
            const CacheSlot *slot = probe(conn->table, conn->capacity, key);
            if (slot->key == key) {
                if (slot->present == 0) {
                    return SMC_ENOKEY;
                }
                *out = {slot->key, slot->type, slot->size, slot->attributes};
                return SMC_OK;
            }
        }
    }

    smc_param in{};
    smc_param answer{};
    in.key = key;
    in.command = SMC_CMD_KEY_INFO;
    std::int32_t status = smcCall(conn, in, answer);

    CacheSlot slot{};
    slot.key = key;
    if (status == SMC_OK) {
        slot.type = answer.data_type;
        slot.size = answer.data_size;
        slot.attributes = answer.attributes;
        slot.present = 1;
    } else if (status != SMC_ENOKEY) {
        return status;  // a transient failure is not remembered
    }
    {
        std::lock_guard guard(conn->lock);
        cachePut(conn, slot);
    }
    if (status == SMC_ENOKEY) {
        return SMC_ENOKEY;
    }
    *out = {slot.key, slot.type, slot.size, slot.attributes};
    return SMC_OK;
}

void smc_key_info_seed(smc_conn *conn, const smc_key_info *info) {
    CacheSlot slot{};
    slot.key = info->key;
    slot.type = info->type;
    slot.size = info->size;
    slot.attributes = info->attributes;
    slot.present = 1;
    std::lock_guard guard(conn->lock);
    cachePut(conn, slot);
}

int32_t smc_key_count(smc_conn *conn, uint32_t *out) {
    smc_value value{};
    std::int32_t status = smc_read(conn, smc_fourcc("#KEY"), &value);
    if (status != SMC_OK) {
        return status;
    }
    if (value.size != 4) {
        return SMC_ESIZE;
    }
    *out = (std::uint32_t{value.bytes[0]} << 24) | (std::uint32_t{value.bytes[1]} << 16) |
           (std::uint32_t{value.bytes[2]} << 8) | std::uint32_t{value.bytes[3]};
    return SMC_OK;
}

int32_t smc_key_at_index(smc_conn *conn, uint32_t index, uint32_t *out) {
    smc_param in{};
    smc_param answer{};
    in.command = SMC_CMD_KEY_AT_INDEX;
    in.index = index;
    std::int32_t status = smcCall(conn, in, answer);
    if (status == SMC_OK) {
        *out = answer.key;
    }
    return status;
}

int32_t smc_read(smc_conn *conn, uint32_t key, smc_value *out) {
    smc_key_info info{};
    std::int32_t status = smc_key_info_get(conn, key, &info);
    if (status != SMC_OK) {
        return status;
    }
    if (info.size > SMC_MAX_DATA) {
        return SMC_ESIZE;
    }
    smc_param in{};
    smc_param answer{};
    in.key = key;
    in.data_size = info.size;
    in.command = SMC_CMD_READ;
    status = smcCall(conn, in, answer);
    if (status != SMC_OK) {
        return status;
    }
    out->key = key;
    out->type = info.type;
    out->size = info.size;
    std::memcpy(out->bytes, answer.bytes, sizeof out->bytes);
    return SMC_OK;
}

int32_t smc_write(smc_conn *conn, uint32_t key, const uint8_t *bytes, uint32_t count) {
    smc_key_info info{};
    std::int32_t status = smc_key_info_get(conn, key, &info);
    if (status == static_cast<std::int32_t>(SMC_KERN_NOT_PERMITTED)) {
        failureDetail.clear();      // the lookup's "reading needs root" would mislead
        return SMC_ENOTPRIVILEGED;  // a caller who may not even look the key up may not write
    }
    if (status != SMC_OK) {
        return status;
    }
    if (count > SMC_MAX_DATA || count != info.size) {
        return SMC_ESIZE;
    }
    smc_param in{};
    smc_param answer{};
    in.key = key;
    in.data_size = count;
    in.command = SMC_CMD_WRITE;
    if (count > 0) {
        std::memcpy(in.bytes, bytes, count);
    }
    return smcCall(conn, in, answer);
}

int32_t smc_read_double(smc_conn *conn, uint32_t key, double *out) {
    smc_value value{};
    std::int32_t status = smc_read(conn, key, &value);
    if (status != SMC_OK) {
        return status;
    }
    if (!smc_decode_double(value.type, value.bytes, value.size, out)) {
        return SMC_ETYPE;
    }
    return SMC_OK;
}

}  // extern "C"
