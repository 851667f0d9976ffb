// The `memory` transport: the channel talks to a virtual SMC inside the same process, with
// no socket and no thread. Tests build one on a machine they own and read its journal;
// OSTREL_SMC=memory:PROFILE gives every connection of a process one shared machine.
//
// No time passes on a machine behind this transport unless its owner calls advance():
// the shared machines of OSTREL_SMC=memory:PROFILE are never advanced, so they keep their
// profile's values (static), which is what unit tests of the layers above want.
#pragma once

#include <memory>
#include <mutex>
#include <string_view>

#include "csmc/transport.h"
#include "ostrel/vsmc/machine.h"

namespace ostrel::vsmc {

class MemoryTransport final : public csmc::Transport {
  public:
    // Serves `machine`, which must outlive the transport. When `guard` is given it is
    // locked around each exchange, so connections on several threads can share a machine.
    explicit MemoryTransport(Machine &machine, Caller caller = {}, std::mutex *guard = nullptr)
        : machine_(machine), caller_(caller), guard_(guard) {}

    std::uint32_t exchange(const smc_param &in, smc_param &out) override;
    std::optional<std::string> modelIdentifier() override;
    std::optional<std::vector<csmc::TemperatureSensor>> temperatureSensors() override;
    std::optional<nlohmann::json> batteryProperties() override;

  private:
    std::unique_lock<std::mutex> lock();  // the guard's lock, or none

    Machine &machine_;
    Caller caller_;
    std::mutex *guard_;
};

// A transport on the process-wide machine for a profile (a built-in name or a file path),
// created on first use and kept for the life of the process. A profile that cannot be
// loaded gives SMC_ENOSERVICE (no such profile) or SMC_EOPEN (it does not parse), with
// the reason in `detail`.
csmc::OpenedTransport openSharedMachine(std::string_view profile);

}  // namespace ostrel::vsmc
