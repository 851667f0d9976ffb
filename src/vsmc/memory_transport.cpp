#include "ostrel/vsmc/memory_transport.h"

#include <map>
#include <string>

namespace ostrel::vsmc {

std::uint32_t MemoryTransport::exchange(const smc_param &in, smc_param &out) {
    if (guard_ == nullptr) {
        return machine_.exchange(in, out, caller_);
    }
    std::lock_guard lock(*guard_);
    return machine_.exchange(in, out, caller_);
}

std::optional<std::string> MemoryTransport::modelIdentifier() {
    std::unique_lock<std::mutex> lock;
    if (guard_ != nullptr) {
        lock = std::unique_lock(*guard_);
    }
    return machine_.model();
}

// The machine model has no sensor services or battery yet: it answers as a machine
// without them.
std::optional<std::vector<csmc::TemperatureSensor>> MemoryTransport::temperatureSensors() {
    return std::vector<csmc::TemperatureSensor>{};
}

std::optional<nlohmann::json> MemoryTransport::batteryProperties() {
    return nlohmann::json();
}

namespace {

struct SharedMachine {
    explicit SharedMachine(const Profile &profile) : machine(profile) {}
    std::mutex guard;
    Machine machine;
};

}  // namespace

csmc::OpenedTransport openSharedMachine(std::string_view profile) {
    static std::mutex registryLock;
    static std::map<std::string, std::unique_ptr<SharedMachine>, std::less<>> machines;

    std::lock_guard lock(registryLock);
    auto it = machines.find(profile);
    if (it == machines.end()) {
        std::string name(profile);
        try {
            auto shared = std::make_unique<SharedMachine>(loadProfile(name));
            it = machines.emplace(name, std::move(shared)).first;
        } catch (const ProfileError &error) {
            return {error.missing() ? SMC_ENOSERVICE : SMC_EOPEN, nullptr, error.what()};
        } catch (const std::bad_alloc &) {
            return {SMC_ENOMEM, nullptr, "out of memory"};
        }
    }
    SharedMachine &shared = *it->second;
    return {SMC_OK, std::make_unique<MemoryTransport>(shared.machine, Caller{}, &shared.guard), ""};
}

}  // namespace ostrel::vsmc
