// The seam between the channel and whatever carries its 80-byte records.
//
// The channel's logic (record layout, commands, results, the key-information cache) is the
// same on every platform; only three operations differ: opening the service, one exchange
// of the parameter record, and closing. A Transport object provides the exchange; opening
// is constructing one and closing is destroying it. The channel owns its transport.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "csmc/smc.h"

namespace csmc {

class Transport {
  public:
    virtual ~Transport() = default;

    // Sends `in` and receives `out` (both 80 bytes, `out` zero-filled by the caller).
    // Returns 0 when the exchange reached the SMC, whatever the SMC answered in
    // out.result; otherwise an IOKit-style return code (SMC_KERN_*). Must be safe to call
    // from several threads at once: the channel does not serialise exchanges.
    virtual std::uint32_t exchange(const smc_param &in, smc_param &out) = 0;
};

// The result of opening a transport by name.
struct OpenedTransport {
    std::int32_t status = SMC_OK;  // SMC_OK, SMC_ENOSERVICE, SMC_EOPEN or SMC_ENOMEM
    std::unique_ptr<Transport> transport;
    std::string detail;  // why it failed, for the user; empty on success
};

// Opens the transport a selector names: "memory:PROFILE", "vsmc:SOCKET",
// "applesmc[:DIR]", or the empty text for the platform default.
OpenedTransport openTransport(std::string_view selector);

// Opens a connection on a transport made by the caller (tests, tools). Same contract as
// smc_open; `transport` must not be null.
std::int32_t openConnection(smc_conn **out, std::unique_ptr<Transport> transport);

// The transport of an open connection.
Transport &transportOf(smc_conn *conn);

// The key-information cache's size, for tests and benchmarks.
struct CacheStats {
    std::uint32_t capacity = 0;  // slots: 0 until the first insertion, then 2048, 4096, ...
    std::uint32_t count = 0;     // occupied slots
};
CacheStats cacheStats(smc_conn *conn);

}  // namespace csmc
