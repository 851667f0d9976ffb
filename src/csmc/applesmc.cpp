#include "csmc/applesmc.h"

#include <fmt/format.h>

#include "csmc/keys.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

namespace csmc {

namespace {

using ostrel::platform::AttributeRead;
using ostrel::platform::LockResult;
using ostrel::platform::Sysfs;

// Why an exchange stopped: a kernel-level code, or else the result byte the SMC would
// have answered. Thrown inside the transport and turned into the answer in exchange().
struct Refusal {
    std::uint32_t kern = 0;
    std::uint8_t result = 0;
};

enum class Access { read, select, store, lock };

std::string_view verb(Access access) {
    switch (access) {
        case Access::read:
            return "reading";
        case Access::select:
            return "selecting a key in";
        case Access::store:
            return "writing";
        case Access::lock:
            return "locking";
    }
    return "using";
}

// The one place where the driver's errno values become what the channel understands. A
// kernel-level answer also tells the user which file failed and how.
Refusal refusalFor(int error, Access access, const std::string &path) {
    Refusal refusal{SMC_KERN_ERROR, 0};
    switch (error) {
        case EACCES:
        case EPERM:
            // Only root may write the selector and the fan files; the lock file is root's too.
            refusal = {SMC_KERN_NOT_PRIVILEGED, 0};
            break;
        case ENOENT:
        case ENODEV:
        case ENXIO:
        case ENOTDIR:
            // The module was unloaded or the device unbound under us.
            refusal = {SMC_KERN_NO_DEVICE, 0};
            break;
        case EIO:
            // The SMC handshake failed; the driver does not retry, neither do we.
            refusal = {SMC_KERN_IO_ERROR, 0};
            break;
        case EINVAL:
            switch (access) {
                case Access::select:
                    return {0, SMC_RESULT_INDEX_RANGE};
                case Access::store:
                    return {0, SMC_RESULT_BAD_ARGUMENT};
                case Access::read:
                case Access::lock:
                    refusal = {SMC_KERN_BAD_ARGUMENT, 0};
                    break;
            }
            break;
        default:
            break;
    }
    noteFailure(fmt::format("applesmc: {} {}: {}", verb(access), path,
                            std::generic_category().message(error)));
    return refusal;
}

// Thrown when the selector did not stay where a step put it; the step is tried again.
struct SelectorMoved {};

// The driver printed something that does not parse: it is not behaving like applesmc.
Refusal garbled(std::string_view attribute, std::string_view text) {
    noteFailure(fmt::format("applesmc: {} reads {:?}, which is not what the driver prints",
                            attribute, text.substr(0, 32)));
    return {SMC_KERN_ERROR, 0};
}

// How often a step that someone spoilt by moving the selector without the lock is tried.
constexpr int kAttempts = 3;
// The driver creates fan attributes for at most ten fans.
constexpr unsigned kMaxFans = 10;

constexpr std::uint8_t kReadOnly = 0x80;
constexpr std::uint8_t kReadWrite = 0xC0;
constexpr std::uint8_t kControl = 0xD0;

constexpr std::uint32_t kForceMask = kForceMaskKey;

std::string_view chomp(std::string_view text) {
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    return text;
}

// A key or type as the driver prints it ("%s\n"). A code holding a NUL byte is cut short
// there by the driver; padding with NULs gives it back.
std::uint32_t parseCode(std::string_view attribute, std::string_view text) {
    text = chomp(text);
    if (text.empty() || text.size() > 4) {
        throw garbled(attribute, text);
    }
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        code = (code << 8) | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0u);
    }
    return code;
}

std::uint32_t parseCount(std::string_view attribute, std::string_view text) {
    text = chomp(text);
    std::uint32_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) {
        throw garbled(attribute, text);
    }
    return value;
}

// A whole, non-negative number that fits 64 bits.
std::optional<std::uint64_t> wholeNumber(double value) {
    if (!(value >= 0 && value < 18446744073709551616.0) || value != std::floor(value)) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(value);
}

// The fan of a per-fan key ('F0Tg' is fan 0) among those the driver has files for.
std::optional<unsigned> fanOf(std::uint32_t key) {
    char digit = static_cast<char>((key >> 16) & 0xFF);
    if ((key >> 24) != 'F' || digit < '0' || digit > '9') {
        return std::nullopt;
    }
    return static_cast<unsigned>(digit - '0');
}

std::string fanAttribute(unsigned fan, std::string_view what) {
    return "fan" + std::to_string(fan + 1) + "_" + std::string(what);
}

// Runs `step`, again when it found the selector moved, and gives up after kAttempts with
// the answer a busy device gives.
template <typename Step>
auto withRetries(Step step) -> decltype(step()) {
    for (int attempt = 1;; ++attempt) {
        try {
            return step();
        } catch (const SelectorMoved &) {
            if (attempt == kAttempts) {
                throw Refusal{SMC_KERN_BUSY, 0};
            }
        }
    }
}

constexpr std::uint32_t suffix(const char (&text)[3]) {
    return (static_cast<std::uint32_t>(text[0]) << 8) | static_cast<std::uint32_t>(text[1]);
}

}  // namespace

ApplesmcTransport::ApplesmcTransport(std::string device, std::string lockPath,
                                     ostrel::platform::Sysfs &sysfs)
    : device_(std::move(device)), lockPath_(std::move(lockPath)), sysfs_(sysfs) {}

std::uint32_t ApplesmcTransport::exchange(const smc_param &in, smc_param &out) {
    switch (in.command) {
        case SMC_CMD_READ:
        case SMC_CMD_WRITE:
        case SMC_CMD_KEY_AT_INDEX:
        case SMC_CMD_KEY_INFO:
            break;
        default:
            return SMC_KERN_BAD_ARGUMENT;
    }
    try {
        // One hold for the whole command: a search, a description and a read (or the
        // read-modify-write of the force mask) then see one consistent selector.
        LockResult held = sysfs_.lockExclusive(lockPath_);
        // The lock file is root's. A reader that may not take it goes on without: every
        // answer is checked against the selector, so at worst it waits or hears "busy",
        // and the driver itself decides whether this user may select a key.
        bool mayReadUnlocked = in.command != SMC_CMD_WRITE &&
                               (held.error == EACCES || held.error == EPERM || held.error == EROFS);
        if (held.error != 0 && !mayReadUnlocked) {
            throw refusalFor(held.error, Access::lock, lockPath_);
        }
        switch (in.command) {
            case SMC_CMD_READ:
                readKey(in, out);
                break;
            case SMC_CMD_WRITE:
                writeKey(in);
                break;
            case SMC_CMD_KEY_AT_INDEX:
                keyAtIndex(in, out);
                break;
            default:
                keyInfo(in, out);
                break;
        }
        return 0;
    } catch (const Refusal &refusal) {
        out.result = refusal.result;
        if (refusal.kern == SMC_KERN_NOT_PRIVILEGED && in.command != SMC_CMD_WRITE) {
            // Selecting a key is a write to a root-only file, so on this driver even reading
            // needs root. Saying "writes need root" would send the user the wrong way.
            noteFailure(
                "reading SMC keys through the applesmc driver needs root (only root "
                "may select a key in " +
                device_ +
                "/key_at_index): run ostrel with sudo; fan control goes through "
                "the daemon (ostrel helper install)");
            return SMC_KERN_NOT_PERMITTED;
        }
        return refusal.kern;
    } catch (const std::bad_alloc &) {
        noteFailure("applesmc: out of memory");
        return SMC_KERN_ERROR;
    }
}

void ApplesmcTransport::keyAtIndex(const smc_param &in, smc_param &out) {
    std::optional<std::uint32_t> found = withRetries([&] { return probe(in.index); });
    if (!found) {
        throw Refusal{0, SMC_RESULT_INDEX_RANGE};
    }
    std::uint32_t key = *found;
    // Listing the keys and then asking about each is the usual pattern; knowing the index
    // spares the search.
    if (!cached(key)) {
        remember(key, Entry{in.index});
    }
    out.key = key;
}

void ApplesmcTransport::keyInfo(const smc_param &in, smc_param &out) {
    Entry entry = describe(in.key);
    // The driver never exports the attribute byte: readable, plus writable for the fan
    // keys it lets us write (the control keys as the SMC marks them).
    std::uint8_t attributes = kReadOnly;
    switch (writeTarget(in.key).kind) {
        case WriteTarget::Kind::speed:
            attributes = (in.key & 0xFFFF) == suffix("Tg") ? kControl : kReadWrite;
            break;
        case WriteTarget::Kind::mode:
            attributes = kControl;
            break;
        case WriteTarget::Kind::forceMask:
            attributes = kReadWrite;
            break;
        case WriteTarget::Kind::none:
            break;
    }
    out.key = in.key;
    out.data_size = entry.size;
    out.data_type = entry.type;
    out.attributes = attributes;
}

void ApplesmcTransport::readKey(const smc_param &in, smc_param &out) {
    std::string data = readValue(in.key);
    if (data.size() != in.data_size || data.size() > SMC_MAX_DATA) {
        throw Refusal{0, SMC_RESULT_SIZE_MISMATCH};
    }
    out.key = in.key;
    std::memcpy(out.bytes, data.data(), data.size());
}

void ApplesmcTransport::writeKey(const smc_param &in) {
    WriteTarget target = writeTarget(in.key);
    if (target.kind == WriteTarget::Kind::none) {
        throw Refusal{0, SMC_RESULT_NOT_WRITABLE};
    }
    Entry entry = describe(in.key);
    if (in.data_size != entry.size || entry.size > SMC_MAX_DATA) {
        throw Refusal{0, SMC_RESULT_SIZE_MISMATCH};
    }
    double value = 0;
    if (!smc_decode_double(entry.type, in.bytes, entry.size, &value)) {
        throw Refusal{0, SMC_RESULT_BAD_ARGUMENT};
    }
    switch (target.kind) {
        case WriteTarget::Kind::speed: {
            // The driver takes whole rpm; a fractional target (flt keys) loses its fraction
            // as the driver's own readings do. The driver judges the range.
            if (!(value >= 0 && value < 4294967296.0)) {
                throw Refusal{0, SMC_RESULT_BAD_ARGUMENT};
            }
            storeAttribute(target.attribute,
                           std::to_string(static_cast<std::uint64_t>(std::trunc(value))));
            break;
        }
        case WriteTarget::Kind::mode:
            // The driver stores only the lowest bit; anything but 0 and 1 would be changed
            // on the way, so it is refused instead.
            if (value != 0 && value != 1) {
                throw Refusal{0, SMC_RESULT_BAD_ARGUMENT};
            }
            storeAttribute(target.attribute, value == 1 ? "1" : "0");
            break;
        case WriteTarget::Kind::forceMask:
            writeForceMask(entry, value);
            break;
        case WriteTarget::Kind::none:
            break;
    }
}

// The driver changes the mask one fan at a time (a read-modify-write of its own), so a
// whole-mask write becomes one store per changed bit, all under our lock.
void ApplesmcTransport::writeForceMask(const Entry &mask, double wanted) {
    std::string current = readValue(kForceMask);
    double held = 0;
    std::optional<std::uint64_t> have;
    if (current.size() == mask.size &&
        smc_decode_double(mask.type, reinterpret_cast<const std::uint8_t *>(current.data()),
                          mask.size, &held)) {
        have = wholeNumber(held);
    }
    if (!have) {
        throw garbled("the force mask FS! ", current);
    }
    std::optional<std::uint64_t> want = wholeNumber(wanted);
    if (!want) {
        throw Refusal{0, SMC_RESULT_BAD_ARGUMENT};
    }
    std::uint64_t changed = *have ^ *want;
    if ((changed >> kMaxFans) != 0) {
        throw Refusal{0, SMC_RESULT_BAD_ARGUMENT};  // no fan attribute for those bits
    }
    for (unsigned fan = 0; changed != 0; ++fan, changed >>= 1) {
        if ((changed & 1) != 0) {
            storeAttribute(fanAttribute(fan, "manual"), ((*want >> fan) & 1) != 0 ? "1" : "0");
        }
    }
}

std::string ApplesmcTransport::readAttribute(std::string_view name) {
    std::string path = device_ + "/" + std::string(name);
    AttributeRead read = sysfs_.read(path);
    if (read.error != 0) {
        throw refusalFor(read.error, Access::read, path);
    }
    return std::move(read.contents);
}

void ApplesmcTransport::storeAttribute(std::string_view name, std::string_view text) {
    std::string path = device_ + "/" + std::string(name);
    int error = sysfs_.write(path, text);
    if (error != 0) {
        throw refusalFor(error, Access::store, path);
    }
}

// False when the driver says the index is past the end of its table.
bool ApplesmcTransport::trySelect(std::uint32_t index) {
    std::string path = device_ + "/key_at_index";
    int error = sysfs_.write(path, std::to_string(index));
    if (error == 0) {
        return true;
    }
    Refusal refusal = refusalFor(error, Access::select, path);
    if (refusal.kern == 0 && refusal.result == SMC_RESULT_INDEX_RANGE) {
        return false;
    }
    throw refusal;
}

std::uint32_t ApplesmcTransport::selectedKey() {
    return parseCode("key_at_index_name", readAttribute("key_at_index_name"));
}

// The key at an index, or nothing when the index is past the end of the table. Reading
// the selector back after the name tells whether someone moved it in between.
std::optional<std::uint32_t> ApplesmcTransport::probe(std::uint32_t index) {
    if (!trySelect(index)) {
        return std::nullopt;
    }
    std::uint32_t key = selectedKey();
    if (parseCount("key_at_index", readAttribute("key_at_index")) != index) {
        throw SelectorMoved{};
    }
    return key;
}

// Binary search over the sorted table, probe by probe.
std::optional<std::uint32_t> ApplesmcTransport::search(std::uint32_t key) {
    std::uint32_t low = 0;
    std::uint32_t high = parseCount("key_count", readAttribute("key_count"));
    while (low < high) {
        std::uint32_t middle = low + (high - low) / 2;
        std::optional<std::uint32_t> found = probe(middle);
        if (!found) {
            high = middle;  // the table is shorter than key_count said a moment ago
        } else if (*found == key) {
            return middle;
        } else if (*found < key) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return std::nullopt;
}

std::uint32_t ApplesmcTransport::locate(std::uint32_t key) {
    if (std::optional<Entry> entry = cached(key)) {
        return entry->index;
    }
    std::optional<std::uint32_t> index = withRetries([&] { return search(key); });
    if (!index) {
        throw Refusal{0, SMC_RESULT_KEY_NOT_FOUND};
    }
    remember(key, Entry{*index});
    return *index;
}

ApplesmcTransport::Entry ApplesmcTransport::describe(std::uint32_t key) {
    if (std::optional<Entry> entry = cached(key); entry && entry->described) {
        return *entry;
    }
    return withRetries([&] {
        Entry entry{locate(key)};
        if (trySelect(entry.index)) {
            entry.type = parseCode("key_at_index_type", readAttribute("key_at_index_type"));
            entry.size =
                parseCount("key_at_index_data_length", readAttribute("key_at_index_data_length"));
            if (selectedKey() == key) {
                entry.described = true;
                remember(key, entry);
                return entry;
            }
        }
        forget(key);  // a moved selector or a stale index: find the key again
        throw SelectorMoved{};
    });
}

// The key's raw bytes, read at its index and accepted only when the selector still shows
// the key afterwards.
std::string ApplesmcTransport::readValue(std::uint32_t key) {
    return withRetries([&] {
        std::uint32_t index = locate(key);
        if (trySelect(index)) {
            std::string data = readAttribute("key_at_index_data");
            if (selectedKey() == key) {
                return data;
            }
        }
        forget(key);
        throw SelectorMoved{};
    });
}

ApplesmcTransport::WriteTarget ApplesmcTransport::writeTarget(std::uint32_t key) {
    using Kind = WriteTarget::Kind;
    if (key == kForceMask) {
        return {Kind::forceMask, ""};
    }
    std::optional<unsigned> fan = fanOf(key);
    if (!fan) {
        return {};
    }
    std::uint32_t what = key & 0xFFFF;
    if (what == suffix("Tg")) {
        return {Kind::speed, fanAttribute(*fan, "output")};
    }
    if (what == suffix("Mn")) {
        return {Kind::speed, fanAttribute(*fan, "min")};
    }
    // fanN_manual is a bit of the force mask wherever the machine has one; only the T2
    // driver, on machines without it, maps the file to the mode key.
    if (what == suffix("Md") && !hasForceMask()) {
        return {Kind::mode, fanAttribute(*fan, "manual")};
    }
    return {};
}

bool ApplesmcTransport::hasForceMask() {
    {
        std::lock_guard guard(cacheLock_);
        if (forceMask_) {
            return *forceMask_;
        }
    }
    bool present = true;
    try {
        locate(kForceMask);
    } catch (const Refusal &refusal) {
        if (refusal.kern != 0 || refusal.result != SMC_RESULT_KEY_NOT_FOUND) {
            throw;
        }
        present = false;
    }
    std::lock_guard guard(cacheLock_);
    forceMask_ = present;
    return present;
}

std::optional<ApplesmcTransport::Entry> ApplesmcTransport::cached(std::uint32_t key) {
    std::lock_guard guard(cacheLock_);
    auto it = entries_.find(key);
    if (it == entries_.end()) {
        return std::nullopt;
    }
    return it->second;
}

void ApplesmcTransport::remember(std::uint32_t key, const Entry &entry) {
    std::lock_guard guard(cacheLock_);
    entries_[key] = entry;
}

void ApplesmcTransport::forget(std::uint32_t key) {
    std::lock_guard guard(cacheLock_);
    entries_.erase(key);
}

namespace {

bool isApplesmcDevice(Sysfs &sysfs, const std::string &dir) {
    AttributeRead name = sysfs.read(dir + "/name");
    if (name.error == 0 && chomp(name.contents) != "applesmc") {
        return false;
    }
    // Any answer but "no such file" means the attribute is there, even a failing read.
    int error = sysfs.read(dir + "/key_count").error;
    return error != ENOENT && error != ENOTDIR;
}

constexpr std::string_view kMainlineDevice = "/devices/platform/applesmc.768";
constexpr std::string_view kT2Device = "/bus/acpi/devices/APP0001:00";

}  // namespace

std::optional<std::string> findApplesmcDevice(std::string_view dir, ostrel::platform::Sysfs &sysfs,
                                              const ostrel::platform::Paths &paths) {
    std::vector<std::string> candidates;
    if (!dir.empty()) {
        while (dir.size() > 1 && dir.back() == '/') {
            dir.remove_suffix(1);
        }
        candidates.emplace_back(dir);
    } else {
        std::string sys = paths.sysfs();
        candidates = {sys + std::string(kMainlineDevice), sys + std::string(kT2Device)};
    }
    for (const std::string &candidate : candidates) {
        if (isApplesmcDevice(sysfs, candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

OpenedTransport openApplesmc(std::string_view dir, ostrel::platform::Sysfs &sysfs,
                             const ostrel::platform::Paths &paths) {
    std::optional<std::string> device = findApplesmcDevice(dir, sysfs, paths);
    if (!device) {
        std::string detail =
            dir.empty()
                ? "no applesmc device in " + paths.sysfs() + std::string(kMainlineDevice) + " or " +
                      paths.sysfs() + std::string(kT2Device) + " (is the applesmc module loaded?)"
                : std::string(dir) + " is not an applesmc device (no key_count attribute)";
        return {SMC_ENOSERVICE, nullptr, std::move(detail)};
    }
    return {SMC_OK, std::make_unique<ApplesmcTransport>(*device, paths.applesmcLock(), sysfs), ""};
}

void addApplesmcTransport(TransportRegistry &registry, ostrel::platform::Sysfs &sysfs,
                          ostrel::platform::Paths paths) {
    auto open = [&sysfs, paths](std::string_view dir) { return openApplesmc(dir, sysfs, paths); };
    registry.add("applesmc", "applesmc[:DIR]", open);
    registry.setDefault(open);
}

}  // namespace csmc
