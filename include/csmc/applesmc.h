// The `applesmc` transport: the channel's four commands answered with the sysfs attributes
// of the Linux applesmc driver, on Intel Macs running Linux (the mainline driver and its T2
// variant).
//
// The driver has no read-by-name file. It offers one index selector (`key_at_index`) that
// every process shares, and attributes describing the selected key. So every command runs
// under an exclusive lock on a lock file that all Ostrel processes take, keys are found by
// binary search over the sorted table, and every answer is checked against the selector
// afterwards (the key's name after a description or a read, the selector itself after a
// search probe). A process that moves the selector without the lock can delay an answer
// or make it fail as busy, but never make it another key's.
//
// Writes exist only for the fan keys the driver exposes (targets, minimums, the force mask
// one bit at a time, and the mode keys on T2); every other write is refused the way the SMC
// refuses a key that is not writable.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "csmc/transport.h"
#include "csmc/transport_registry.h"
#include "ostrel/platform/paths.h"
#include "ostrel/platform/sysfs.h"

namespace csmc {

class ApplesmcTransport final : public Transport {
  public:
    // Talks to the driver whose attributes sit in the directory `device`, serialising the
    // selector with an exclusive lock on `lockPath`. `sysfs` must outlive the transport.
    ApplesmcTransport(std::string device, std::string lockPath, ostrel::platform::Sysfs &sysfs);

    // Any thread may call. Driver errors come back as: EACCES (not root)
    // SMC_KERN_NOT_PRIVILEGED; EIO SMC_KERN_IO_ERROR; a vanished device SMC_KERN_NO_DEVICE;
    // a value the driver refuses (EINVAL) the result SMC_RESULT_BAD_ARGUMENT; a selector
    // that keeps moving under a rogue writer SMC_KERN_BUSY. The model, sensor services and
    // battery are not the SMC's business on real hardware: the inherited "nothing" answers
    // stand.
    std::uint32_t exchange(const smc_param &in, smc_param &out) override;

    const std::string &device() const { return device_; }

  private:
    // What the transport has learnt about a key: its index, and once a full description was
    // read and checked, its type and size.
    struct Entry {
        std::uint32_t index = 0;
        std::uint32_t type = 0;
        std::uint32_t size = 0;
        bool described = false;
    };
    // Where a write of a key goes.
    struct WriteTarget {
        enum class Kind { none, speed, mode, forceMask } kind = Kind::none;
        std::string attribute;  // speed and mode: the fan attribute to store into
    };

    void keyAtIndex(const smc_param &in, smc_param &out);
    void keyInfo(const smc_param &in, smc_param &out);
    void readKey(const smc_param &in, smc_param &out);
    void writeKey(const smc_param &in);
    void writeForceMask(const Entry &mask, double wanted);

    std::string readAttribute(std::string_view name);
    void storeAttribute(std::string_view name, std::string_view text);
    bool trySelect(std::uint32_t index);
    std::uint32_t selectedKey();
    std::optional<std::uint32_t> probe(std::uint32_t index);
    std::optional<std::uint32_t> search(std::uint32_t key);
    std::uint32_t locate(std::uint32_t key);
    Entry describe(std::uint32_t key);
    std::string readValue(std::uint32_t key);
    WriteTarget writeTarget(std::uint32_t key);
    bool hasForceMask();

    std::optional<Entry> cached(std::uint32_t key);
    void remember(std::uint32_t key, const Entry &entry);
    void forget(std::uint32_t key);

    std::string device_;
    std::string lockPath_;
    ostrel::platform::Sysfs &sysfs_;

    std::mutex cacheLock_;  // guards entries_ and forceMask_; never held across file access
    std::unordered_map<std::uint32_t, Entry> entries_;
    std::optional<bool> forceMask_;  // whether the table has 'FS! ', once known
};

// The directory of the applesmc driver's attributes: `dir` when it is not empty, else the
// mainline platform device (sysfs/devices/platform/applesmc.768), else the T2 ACPI device
// (sysfs/bus/acpi/devices/APP0001:00), both under paths.sysfs(). A directory counts when it
// has a `key_count` attribute and its `name` attribute, where there is one, reads
// "applesmc". Nothing when no candidate counts.
std::optional<std::string> findApplesmcDevice(std::string_view dir, ostrel::platform::Sysfs &sysfs,
                                              const ostrel::platform::Paths &paths);

// The transport on the device found as above, locking paths.applesmcLock(); SMC_ENOSERVICE
// with the places looked at in `detail` when there is no device.
OpenedTransport openApplesmc(std::string_view dir, ostrel::platform::Sysfs &sysfs,
                             const ostrel::platform::Paths &paths);

// Registers "applesmc[:DIR]" and makes the driver's device the platform default (Linux's
// own SMC). `sysfs` and the environment behind `paths` must outlive the registry.
void addApplesmcTransport(TransportRegistry &registry, ostrel::platform::Sysfs &sysfs,
                          ostrel::platform::Paths paths);

}  // namespace csmc
