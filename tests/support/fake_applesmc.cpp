#include "support/fake_applesmc.h"

#include "csmc/keys.h"

#include <algorithm>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <set>

namespace ostrel::test {

namespace {

constexpr unsigned kMaxFans = 10;
constexpr unsigned long kSpeedLimit = 0x4000;

// The kernel's kstrtoul(text, 10): an optional '+', decimal digits, at most one trailing
// newline; anything else, and overflow, is refused. (Fan file numbers are read with it too.)
std::optional<unsigned long> kernelUnsigned(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    if (text.starts_with('+')) {
        text.remove_prefix(1);
    }
    unsigned long value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    return ec == std::errc{} && end == text.data() + text.size() ? std::optional(value)
                                                                 : std::nullopt;
}

// "%s" of a four-character code: it stops at a NUL byte.
std::string codeText(std::uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0 && ((code >> shift) & 0xFF) != 0; shift -= 8) {
        text += static_cast<char>((code >> shift) & 0xFF);
    }
    return text;
}

// A fan attribute, "fanN_KIND" with N from 1: its fan's index and its kind.
struct FanFile {
    unsigned index;
    std::string_view kind;  // "min", "output" or "manual"
};

std::optional<FanFile> fanFile(std::string_view name) {
    std::size_t underscore = name.find('_');
    if (!name.starts_with("fan") || underscore == std::string_view::npos) {
        return std::nullopt;
    }
    std::optional<unsigned long> number = kernelUnsigned(name.substr(3, underscore - 3));
    std::string_view kind = name.substr(underscore + 1);
    if (!number || *number == 0 || (kind != "min" && kind != "output" && kind != "manual")) {
        return std::nullopt;
    }
    return FanFile{static_cast<unsigned>(*number - 1), kind};
}

// The SMC key behind a fan speed attribute (fanN_min or fanN_output).
std::uint32_t speedKey(const FanFile &fan) {
    return csmc::fanKey(fan.index, fan.kind == "min" ? "Mn" : "Tg");
}

// The lock file held: one holder at a time, known by its thread.
class Hold final : public platform::HeldLock {
  public:
    Hold(std::mutex &lock, std::atomic<std::thread::id> &holder) : guard_(lock), holder_(holder) {
        holder_ = std::this_thread::get_id();
    }
    ~Hold() override { holder_ = std::thread::id(); }

  private:
    std::unique_lock<std::mutex> guard_;
    std::atomic<std::thread::id> &holder_;
};

}  // namespace

class FakeApplesmc::Opener final : public platform::Sysfs {
  public:
    Opener(FakeApplesmc &driver, unsigned uid) : driver(driver), uid(uid) {}

    platform::AttributeRead read(const std::string &path) override {
        platform::AttributeRead result;
        result.error = driver.use(path, std::nullopt, result.contents, *this);
        return result;
    }
    int write(const std::string &path, std::string_view text) override {
        std::string unused;
        return driver.use(path, text, unused, *this);
    }
    platform::LockResult lockExclusive(const std::string &) override {
        return uid != 0 ? platform::LockResult{EACCES, nullptr}
                        : platform::LockResult{
                              0, std::make_unique<Hold>(driver.fileLock_, driver.holder_)};
    }

    FakeApplesmc &driver;
    const unsigned uid;
};

FakeApplesmc::FakeApplesmc(vsmc::Machine &machine, Variant variant, std::string sysRoot)
    : machine_(machine),
      variant_(variant),
      device_(sysRoot + (variant == Variant::mainline ? "/devices/platform/applesmc.768"
                                                      : "/bus/acpi/devices/APP0001:00")) {}

std::unique_ptr<platform::Sysfs> FakeApplesmc::opener(unsigned uid) {
    return std::make_unique<Opener>(*this, uid);
}

void FakeApplesmc::grantSelector(unsigned uid) {
    std::lock_guard guard(mutex_);
    selectorUsers_.push_back(uid);
}

void FakeApplesmc::failNext(const std::string &attribute, int error) {
    std::lock_guard guard(mutex_);
    faults_[attribute] = error;
}

void FakeApplesmc::detach() {
    std::lock_guard guard(mutex_);
    detached_ = true;
}

void FakeApplesmc::moveSelectorAfter(unsigned times, std::uint32_t index) {
    std::lock_guard guard(mutex_);
    movesLeft_ = times;
    moves_ = 0;
    moveTo_ = index;
}

int FakeApplesmc::use(const std::string &path, std::optional<std::string_view> text,
                      std::string &out, const Opener &who) {
    std::lock_guard guard(mutex_);
    std::string attribute;
    int error = access(path, text.has_value(), who, attribute);
    if (error == 0) {
        error = text ? store(attribute, *text) : show(attribute, out);
    }
    if (error == 0 && text && attribute.starts_with("fan")) {
        stores_ += (stores_.empty() ? "" : " ") + attribute + "=" + std::string(*text);
    }
    if (attribute == "key_at_index" && movesLeft_ > 0) {
        --movesLeft_;
        ++moves_;
        selector_ = moveTo_;
    }
    return error;
}

// Resolves the path to an attribute and applies existence, injected faults and file modes.
int FakeApplesmc::access(const std::string &path, bool writing, const Opener &who,
                         std::string &attribute) {
    ++accesses_;
    std::string prefix = device_ + "/";
    if (detached_ || !path.starts_with(prefix)) {
        return ENOENT;
    }
    attribute = path.substr(prefix.size());
    if (attribute.starts_with("key_at_index") && holder_ != std::this_thread::get_id()) {
        ++unlockedSelectorUses_;
    }

    // The selector and the fan files are writable; the rest are read-only, and anything
    // else (the T2 driver has no name file) does not exist.
    static const std::set<std::string> kReadOnly = {"key_count", "key_at_index_name",
                                                    "key_at_index_type", "key_at_index_data_length",
                                                    "key_at_index_data"};
    bool readOnly =
        kReadOnly.contains(attribute) || (attribute == "name" && variant_ == Variant::mainline);
    std::optional<FanFile> fan = fanFile(attribute);
    if (!readOnly && attribute != "key_at_index" && (!fan || fan->index >= fanCount())) {
        return ENOENT;
    }

    if (auto fault = faults_.extract(attribute)) {
        return fault.mapped();
    }
    bool granted =
        attribute == "key_at_index" &&
        std::find(selectorUsers_.begin(), selectorUsers_.end(), who.uid) != selectorUsers_.end();
    if (writing && (readOnly || (who.uid != 0 && !granted))) {
        return EACCES;
    }
    return 0;
}

int FakeApplesmc::show(const std::string &attribute, std::string &out) {
    if (attribute == "name") {
        out = "applesmc\n";
        return 0;
    }
    if (attribute == "key_at_index") {
        out = std::to_string(selector_) + "\n";
        return 0;
    }
    if (attribute.starts_with("key_at_index_")) {
        vsmc::KeyEntry entry;
        if (int error = selected(entry)) {
            return error;
        }
        if (attribute == "key_at_index_name") {
            out = codeText(entry.key) + "\n";
        } else if (attribute == "key_at_index_type") {
            out = codeText(entry.type) + "\n";
        } else if (attribute == "key_at_index_data_length") {
            out = std::to_string(entry.size) + "\n";
        } else {
            std::vector<std::uint8_t> bytes;
            if (int error = readKey(entry.key, entry.size, bytes)) {
                return error;
            }
            out.assign(bytes.begin(), bytes.end());
        }
        return 0;
    }
    // key_count, or a fan file.
    std::optional<FanFile> file = fanFile(attribute);
    FanFile fan = file.value_or(FanFile{});
    std::vector<std::uint8_t> bytes;
    unsigned long number = 0;
    int error = 0;
    if (!file) {
        error = readUnsigned(smc_fourcc("#KEY"), 4, number);
    } else if (fan.kind == "manual" && variant_ == Variant::mainline) {
        error = readUnsigned(csmc::kForceMaskKey, 2, number);
        number = (number >> fan.index) & 1;
    } else if (fan.kind == "manual") {
        error = readUnsigned(csmc::fanKey(fan.index, "Md"), 1, number);
        number &= 1;
    } else if (variant_ == Variant::mainline) {
        error = readUnsigned(speedKey(fan), 2, number);
        number >>= 2;  // fpe2
    } else if ((error = readKey(speedKey(fan), 4, bytes)) == 0) {
        float value = 0;
        std::memcpy(&value, bytes.data(), 4);  // little-endian, as on the x86 host
        number = value > 0 ? static_cast<unsigned long>(value) : 0;
    }
    out = error == 0 ? std::to_string(number) + "\n" : "";
    return error;
}

int FakeApplesmc::store(const std::string &attribute, std::string_view text) {
    std::optional<unsigned long> value = kernelUnsigned(text);
    if (!value) {
        return EINVAL;
    }
    if (attribute == "key_at_index") {
        if (*value >= machine_.keys().size()) {
            return EINVAL;
        }
        selector_ = static_cast<std::uint32_t>(*value);
        return 0;
    }
    FanFile fan = *fanFile(attribute);
    if (fan.kind == "manual") {
        if (variant_ == Variant::t2) {
            return writeKey(csmc::fanKey(fan.index, "Md"), {static_cast<std::uint8_t>(*value & 1)});
        }
        unsigned long mask = 0;
        if (int error = readUnsigned(csmc::kForceMaskKey, 2, mask)) {
            return error;
        }
        unsigned long bit = 1ul << fan.index;
        mask = *value != 0 ? (mask | bit) : (mask & ~bit);
        return writeKey(csmc::kForceMaskKey,
                        {static_cast<std::uint8_t>(mask >> 8), static_cast<std::uint8_t>(mask)});
    }
    if (*value >= kSpeedLimit) {
        return EINVAL;
    }
    std::uint32_t key = speedKey(fan);
    if (variant_ == Variant::mainline) {
        return writeKey(key, {static_cast<std::uint8_t>(*value >> 6),
                              static_cast<std::uint8_t>((*value << 2) & 0xFF)});
    }
    float speed = static_cast<float>(*value);
    std::vector<std::uint8_t> bytes(4);
    std::memcpy(bytes.data(), &speed, 4);
    return writeKey(key, bytes);
}

int FakeApplesmc::smc(std::uint8_t command, std::uint32_t key, std::uint32_t index, smc_param &out,
                      const std::uint8_t *bytes, std::uint32_t size) {
    smc_param in{};
    in.command = command;
    in.key = key;
    in.index = index;
    in.data_size = size;
    if (bytes != nullptr) {
        std::memcpy(in.bytes, bytes, size);
    }
    out = smc_param{};
    std::uint32_t kern = machine_.exchange(in, out);
    return kern != 0 || out.result != SMC_RESULT_OK ? EIO : 0;
}

int FakeApplesmc::readKey(std::uint32_t key, std::uint32_t size, std::vector<std::uint8_t> &bytes) {
    const vsmc::KeyEntry *entry = machine_.keys().find(key);
    if (entry == nullptr || entry->size != size) {
        return EINVAL;
    }
    smc_param out{};
    if (int error = smc(SMC_CMD_READ, key, 0, out, nullptr, size)) {
        return error;
    }
    bytes.assign(out.bytes, out.bytes + size);
    return 0;
}

int FakeApplesmc::readUnsigned(std::uint32_t key, std::uint32_t size, unsigned long &value) {
    std::vector<std::uint8_t> bytes;
    int error = readKey(key, size, bytes);
    value = 0;
    for (std::uint8_t byte : bytes) {
        value = (value << 8) | byte;
    }
    return error;
}

int FakeApplesmc::writeKey(std::uint32_t key, const std::vector<std::uint8_t> &bytes) {
    const vsmc::KeyEntry *entry = machine_.keys().find(key);
    if (entry == nullptr || entry->size != bytes.size()) {
        return EINVAL;
    }
    smc_param out{};
    return smc(SMC_CMD_WRITE, key, 0, out, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

int FakeApplesmc::selected(vsmc::KeyEntry &entry) {
    smc_param out{};
    if (int error = smc(SMC_CMD_KEY_AT_INDEX, 0, selector_, out)) {
        // An index past the end means the table shrank under the selector.
        return out.result == SMC_RESULT_INDEX_RANGE ? EINVAL : error;
    }
    std::uint32_t key = out.key;
    if (int error = smc(SMC_CMD_KEY_INFO, key, 0, out)) {
        return error;
    }
    entry.key = key;
    entry.type = out.data_type;
    entry.size = out.data_size;
    return 0;
}

unsigned FakeApplesmc::fanCount() const {
    const vsmc::KeyEntry *count = machine_.keys().find(smc_fourcc("FNum"));
    unsigned fans = count != nullptr && count->size >= 1 ? count->bytes[0] : 0;
    return fans < kMaxFans ? fans : kMaxFans;
}

}  // namespace ostrel::test
