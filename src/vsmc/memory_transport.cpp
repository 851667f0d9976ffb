#include "ostrel/vsmc/memory_transport.h"

#include <map>
#include <string>

#include "csmc/applesmc.h"
#include "csmc/vsmc_transport.h"

namespace ostrel::vsmc {

std::uint32_t MemoryTransport::exchange(const smc_param &in, smc_param &out) {
    auto held = lock();
    return machine_.exchange(in, out, caller_);
}

std::unique_lock<std::mutex> MemoryTransport::lock() {
    return guard_ != nullptr ? std::unique_lock(*guard_) : std::unique_lock<std::mutex>();
}

std::optional<std::string> MemoryTransport::modelIdentifier() {
    auto held = lock();
    return machine_.model();
}

std::optional<std::vector<csmc::TemperatureSensor>> MemoryTransport::temperatureSensors() {
    auto held = lock();
    return machine_.temperatureSensors();
}

std::optional<nlohmann::json> MemoryTransport::batteryProperties() {
    auto held = lock();
    return machine_.batteryProperties();
}

namespace {

struct SharedMachine {
    explicit SharedMachine(const Profile &profile) : machine(profile) {}
    std::mutex guard;
    Machine machine;
};

// The machines of one registry, by profile.
struct SharedMachines {
    std::mutex lock;
    std::map<std::string, std::shared_ptr<SharedMachine>, std::less<>> byProfile;
};

csmc::OpenedTransport openShared(SharedMachines &machines, std::string_view profile,
                                 const platform::Files &files) {
    if (profile.empty()) {
        return {SMC_ENOSERVICE, nullptr,
                "OSTREL_SMC=memory: needs a profile name or file, e.g. memory:macbookpro10-1"};
    }
    std::lock_guard lock(machines.lock);
    auto it = machines.byProfile.find(profile);
    if (it == machines.byProfile.end()) {
        std::string name(profile);
        try {
            it = machines.byProfile
                     .emplace(name, std::make_shared<SharedMachine>(loadProfile(name, files)))
                     .first;
        } catch (const ProfileError &error) {
            return {error.missing() ? SMC_ENOSERVICE : SMC_EOPEN, nullptr, error.what()};
        } catch (const std::bad_alloc &) {
            return {SMC_ENOMEM, nullptr, "out of memory"};
        }
    }
    std::shared_ptr<SharedMachine> shared = it->second;
    return {SMC_OK,
            std::make_unique<MemoryTransport>(shared->machine, Caller{}, &shared->guard, shared),
            ""};
}

}  // namespace

void addMemoryTransport(csmc::TransportRegistry &registry, const platform::Files &files) {
    auto machines = std::make_shared<SharedMachines>();
    registry.add("memory", "memory:PROFILE", [machines, &files](std::string_view profile) {
        return openShared(*machines, profile, files);
    });
}

void addAllTransports(csmc::TransportRegistry &registry, const platform::Files &files,
                      platform::Clock &clock, platform::Sysfs &sysfs, platform::Paths paths) {
    addMemoryTransport(registry, files);
    csmc::addVsmcTransport(registry, clock);
    csmc::addApplesmcTransport(registry, sysfs, std::move(paths));
}

}  // namespace ostrel::vsmc
