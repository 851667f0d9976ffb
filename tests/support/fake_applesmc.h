// A fake Linux applesmc driver for tests: the sysfs attributes the driver creates, backed by
// a virtual SMC, with the driver's behaviour where the applesmc transport depends on it.
//
// - One `key_at_index` selector shared by every opener; an index that does not parse or is
//   not below the key count is EINVAL. The selected key's name, type, length and data are
//   separate attributes; key_count and the data are read from the SMC afresh each time.
// - Files are owned by root: a write by any other uid is EACCES, and a read-only attribute
//   is EACCES even for root. Numbers are parsed as the kernel's kstrtoul does.
// - Fan speeds: fpe2 on the mainline driver, flt on the T2 driver (read truncated to whole
//   rpm); speeds of 16384 or more are EINVAL. `fanN_manual` is a read-modify-write of bit
//   N-1 of 'FS! ' on mainline and stores `value & 1` into 'F(N-1)Md' on T2.
// - A failed SMC transaction is EIO; a key the driver does not know is EINVAL.
//
// Every SMC transaction goes through the machine's exchange, so the machine's journal and
// injected faults apply.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ostrel/platform/sysfs.h"
#include "ostrel/vsmc/machine.h"

namespace ostrel::test {

class FakeApplesmc {
  public:
    enum class Variant { mainline, t2 };

    // The driver on `machine` (which must outlive it), its attributes under `sysRoot` at the
    // variant's place: devices/platform/applesmc.768 or bus/acpi/devices/APP0001:00.
    FakeApplesmc(vsmc::Machine &machine, Variant variant, std::string sysRoot = "/sys");

    const std::string &device() const { return device_; }

    // A process using the driver's files as `uid` (0 is root). The lock it offers is
    // shared by all openers of this driver and, like the real lock file (mode 0600, root's),
    // refuses every uid but root with EACCES. The opener must not outlive the driver.
    std::unique_ptr<platform::Sysfs> opener(unsigned uid = 0);
    // An administrator let `uid` write the selector (a udev rule on key_at_index).
    void grantSelector(unsigned uid);

    // The successful writes into fan attributes (fanN_*) in order, as "ATTRIBUTE=TEXT"
    // separated by blanks; selector writes are left out.
    std::string fanStores() const { return locked(stores_); }

    // The next access to `attribute` fails with `error`.
    void failNext(const std::string &attribute, int error);
    // The module goes away: every attribute is ENOENT from now on.
    void detach();
    // Another root process, heedless of the lock, selects `index` right after each of the
    // next `times` accesses to key_at_index; selectorMoves() counts them from zero again.
    void moveSelectorAfter(unsigned times, std::uint32_t index);
    unsigned selectorMoves() const { return locked(moves_); }

    // Selector uses (writing key_at_index, reading key_at_index_*) on a thread that did not
    // hold the lock at the time.
    std::size_t unlockedSelectorUses() const { return locked(unlockedSelectorUses_); }
    // Reads and writes through the openers.
    std::size_t accesses() const { return locked(accesses_); }

  private:
    class Opener;
    friend class Opener;

    // A copy of a member, taken under mutex_.
    template <typename T>
    T locked(const T &member) const {
        std::lock_guard guard(mutex_);
        return member;
    }

    // One read (no text; the contents go to `out`) or write of an attribute.
    int use(const std::string &path, std::optional<std::string_view> text, std::string &out,
            const Opener &who);

    // Each of these runs with mutex_ held and returns 0 or an errno.
    int access(const std::string &path, bool writing, const Opener &who, std::string &attribute);
    int show(const std::string &attribute, std::string &out);
    int store(const std::string &attribute, std::string_view text);
    int smc(std::uint8_t command, std::uint32_t key, std::uint32_t index, smc_param &out,
            const std::uint8_t *bytes = nullptr, std::uint32_t size = 0);
    int readKey(std::uint32_t key, std::uint32_t size, std::vector<std::uint8_t> &bytes);
    int writeKey(std::uint32_t key, const std::vector<std::uint8_t> &bytes);
    int readUnsigned(std::uint32_t key, std::uint32_t size, unsigned long &value);  // big-endian
    int selected(vsmc::KeyEntry &entry);
    unsigned fanCount() const;

    vsmc::Machine &machine_;
    Variant variant_;
    std::string device_;

    std::mutex fileLock_;                    // the lock file's one holder
    std::atomic<std::thread::id> holder_{};  // its thread, while held

    mutable std::mutex mutex_;  // guards everything below
    std::uint32_t selector_ = 0;
    bool detached_ = false;
    std::string stores_;
    std::map<std::string, int> faults_;  // attribute -> errno of its next access
    unsigned movesLeft_ = 0;
    unsigned moves_ = 0;
    std::uint32_t moveTo_ = 0;
    std::size_t unlockedSelectorUses_ = 0;
    std::vector<unsigned> selectorUsers_;
    std::size_t accesses_ = 0;
};

}  // namespace ostrel::test
