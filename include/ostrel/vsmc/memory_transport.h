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
#include "csmc/transport_registry.h"
#include "ostrel/platform/clock.h"
#include "ostrel/platform/files.h"
#include "ostrel/platform/paths.h"
#include "ostrel/platform/sysfs.h"
#include "ostrel/vsmc/machine.h"

namespace ostrel::vsmc {

class MemoryTransport final : public csmc::Transport {
  public:
    // Serves `machine`, which must outlive the transport unless `owner` keeps it alive.
    // When `guard` is given it is locked around each exchange, so connections on several
    // threads can share a machine.
    explicit MemoryTransport(Machine &machine, Caller caller = {}, std::mutex *guard = nullptr,
                             std::shared_ptr<const void> owner = nullptr)
        : machine_(machine), caller_(caller), guard_(guard), owner_(std::move(owner)) {}

    std::uint32_t exchange(const smc_param &in, smc_param &out) override;
    std::optional<std::string> modelIdentifier() override;
    std::optional<std::vector<csmc::TemperatureSensor>> temperatureSensors() override;
    std::optional<nlohmann::json> batteryProperties() override;

  private:
    std::unique_lock<std::mutex> lock();  // the guard's lock, or none

    Machine &machine_;
    Caller caller_;
    std::mutex *guard_;
    std::shared_ptr<const void> owner_;
};

// Registers "memory:PROFILE" (a built-in name or a file read through `files`, which must
// outlive the registry). All connections the registry opens on one profile share one
// machine, made on first use and kept while the registry or a connection on it lives. A
// profile that cannot be loaded gives SMC_ENOSERVICE (no such profile) or SMC_EOPEN (it
// does not parse), with the reason in `detail`.
void addMemoryTransport(csmc::TransportRegistry &registry, const platform::Files &files);

// Every transport there is, as the CLI and the tests offer them: memory:PROFILE (profile
// files through `files`), vsmc:SOCKET (timed by `clock`) and applesmc[:DIR] (through
// `sysfs`, under the root `paths` gives), which is also the platform default. Everything
// passed in must outlive the registry.
void addAllTransports(csmc::TransportRegistry &registry, const platform::Files &files,
                      platform::Clock &clock, platform::Sysfs &sysfs, platform::Paths paths);

}  // namespace ostrel::vsmc
