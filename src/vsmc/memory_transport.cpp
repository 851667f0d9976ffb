#include "ostrel/vsmc/memory_transport.h"

#include <map>
#include <string>

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
