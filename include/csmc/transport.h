// The seam between the channel and whatever carries its 80-byte records.
//
// The channel's logic (record layout, commands, results, the key-information cache) is the
// same on every platform; only three operations differ: opening the service, one exchange
// of the parameter record, and closing. A Transport object provides the exchange; opening
// is constructing one and closing is destroying it. The channel owns its transport.
//
// A transport to a virtual Mac also carries what a real Mac publishes outside the SMC: the
// model identifier, the temperature-sensor services and the battery's property dictionary.
// On real hardware those come from the system instead (DMI, hwmon, power_supply), and the
// transport answers "nothing" for them.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "csmc/smc.h"

namespace csmc {

// One temperature-sensor service: its display name and current reading.
struct TemperatureSensor {
    std::string name;
    double celsius = 0;
};

class Transport {
  public:
    virtual ~Transport() = default;

    // Sends `in` and receives `out` (both 80 bytes, `out` zero-filled by the caller).
    // Returns 0 when the exchange reached the SMC, whatever the SMC answered in
    // out.result; otherwise an IOKit-style return code (SMC_KERN_*). Must be safe to call
    // from several threads at once: the channel does not serialise exchanges.
    virtual std::uint32_t exchange(const smc_param &in, smc_param &out) = 0;

    // The machine's model identifier ("MacBookPro16,1"), or nothing when the transport
    // does not know it (real hardware: read it from the system).
    virtual std::optional<std::string> modelIdentifier() { return std::nullopt; }

    // The machine's temperature-sensor services in their fixed order, with current
    // readings; nothing when the transport has no such list (real hardware: use hwmon).
    // A virtual Mac without sensor services answers an empty list.
    virtual std::optional<std::vector<TemperatureSensor>> temperatureSensors() {
        return std::nullopt;
    }

    // The battery's property dictionary with the registry's keys and units
    // (CurrentCapacity, MaxCapacity, DesignCapacity, Voltage in mV, Amperage in mA,
    // Temperature in 0.01 degC, CycleCount, IsCharging, ExternalConnected, ...); a JSON
    // null when the machine has no battery; nothing when the transport does not provide
    // one (real hardware: read /sys/class/power_supply).
    virtual std::optional<nlohmann::json> batteryProperties() { return std::nullopt; }
};

// The result of opening a transport by name.
struct OpenedTransport {
    std::int32_t status = SMC_OK;  // SMC_OK, SMC_ENOSERVICE, SMC_EOPEN or SMC_ENOMEM
    std::unique_ptr<Transport> transport;
    std::string detail;  // why it failed, for the user; empty on success
};

// Records why the exchange in progress on the calling thread failed, in words a user can
// act on (the errno text and the file, say); the channel hands it out as
// smc_error_detail(). Transports call it before returning a kernel code.
void noteFailure(std::string detail);

// Opens a connection on a transport made by the caller (tests, tools). Same contract as
// smc_open; `transport` must not be null.
std::int32_t openConnection(smc_conn **out, std::unique_ptr<Transport> transport);

// Opens a connection on the outcome of opening a transport (TransportRegistry::open):
// its status when that failed, with its detail kept for smc_open_detail(); otherwise as
// above. Sets *out to null first.
std::int32_t openConnection(smc_conn **out, OpenedTransport opened);

// The transport of an open connection.
Transport &transportOf(smc_conn *conn);

// The key-information cache's size, for tests and benchmarks.
struct CacheStats {
    std::uint32_t capacity = 0;  // slots: 0 until the first insertion, then 2048, 4096, ...
    std::uint32_t count = 0;     // occupied slots
};
CacheStats cacheStats(smc_conn *conn);

}  // namespace csmc
