#include "ostrel/smc.h"

#include <fmt/format.h>

#include <cmath>

#include "csmc/transport.h"

namespace ostrel {

std::string FourCC::description() const {
    std::string text(4, '?');
    for (int i = 0; i < 4; ++i) {
        auto c = static_cast<unsigned char>(rawValue >> (24 - 8 * i));
        if (c >= 32 && c <= 126) {
            text[static_cast<std::size_t>(i)] = static_cast<char>(c);
        }
    }
    return text;
}

void to_json(Json &json, const FourCC &code) {
    json = code.description();
}

void to_json(Json &json, const SMCKeyInfo &info) {
    json = Json{{"key", info.key},
                {"type", info.type},
                {"size", info.size},
                {"attributes", info.attributes}};
}

std::optional<double> SMCValue::doubleValue() const {
    return SMCCodec::decode(bytes, type);
}

std::string SMCValue::hex() const {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) {
            text += ' ';
        }
        text += fmt::format("{:02x}", bytes[i]);
    }
    return text;
}

std::string SMCValue::display() const {
    if (auto number = doubleValue()) {
        double v = *number;
        if (v == std::trunc(v) && std::fabs(v) < 1e15) {
            return fmt::format("{}", static_cast<long long>(v));
        }
        return fmt::format("{:.3f}", v);
    }
    if (type == FourCC("ch8*") || type == FourCC("{fds")) {
        std::string text;
        for (std::uint8_t b : bytes) {
            if (b == 0) {
                break;
            }
            if (b >= 32 && b <= 126) {
                text.push_back(static_cast<char>(b));
            }
        }
        if (!text.empty()) {
            return "\"" + text + "\"";
        }
    }
    return "[" + hex() + "]";
}

namespace SMCCodec {

std::optional<double> decode(std::span<const std::uint8_t> bytes, FourCC type) {
    double value = 0;
    if (!smc_decode_double(type.rawValue, bytes.data(), static_cast<std::uint32_t>(bytes.size()),
                           &value)) {
        return std::nullopt;
    }
    return value;
}

std::vector<std::uint8_t> encode(double value, FourCC type, std::size_t size) {
    std::vector<std::uint8_t> buffer(std::max<std::size_t>(size, 1), 0);
    bool encoded =
        size <= SMC_MAX_DATA &&
        smc_encode_double(type.rawValue, static_cast<std::uint32_t>(size), buffer.data(), value);
    if (!encoded) {
        throw SMCError::unsupportedType(FourCC::unknown, type);
    }
    buffer.resize(size);
    return buffer;
}

}  // namespace SMCCodec

SMCError::SMCError(Kind kind, FourCC key, FourCC type, std::int32_t code)
    : kind_(kind), key_(key), type_(type), code_(code) {
    switch (kind) {
        case Kind::keyNotFound:
            description_ = fmt::format("SMC key '{}' not found", key.description());
            break;
        case Kind::sizeMismatch:
            description_ = fmt::format("SMC key '{}': size mismatch", key.description());
            break;
        case Kind::unsupportedType:
            description_ = fmt::format("SMC key '{}': unsupported type '{}'", key.description(),
                                       type.description());
            break;
        case Kind::firmware:
            description_ = fmt::format("SMC rejected request for '{}'", key.description());
            break;
        case Kind::kernel:
            description_ = fmt::format("IOKit error 0x{:08x}", static_cast<std::uint32_t>(code));
            break;
        case Kind::noService:
            description_ = "AppleSMC service not found";
            break;
        case Kind::openFailed:
            description_ = "cannot open AppleSMC";
            break;
        case Kind::notPrivileged:
            description_ = "SMC write requires root (install the helper: ostrel helper install)";
            break;
        case Kind::outOfMemory:
            description_ = "out of memory";
            break;
    }
}

SMCError SMCError::fromStatus(std::int32_t code, FourCC key, FourCC type) {
    switch (code) {
        case SMC_ENOSERVICE:
            return noService();
        case SMC_EOPEN:
            return openFailed();
        case SMC_ENOKEY:
            return keyNotFound(key);
        case SMC_ESIZE:
            return sizeMismatch(key);
        case SMC_ETYPE:
            return unsupportedType(key, type);
        case SMC_ENOTPRIVILEGED:
            return notPrivileged();
        case SMC_EFIRMWARE:
            return firmware(key);
        case SMC_ENOMEM:
            return outOfMemory();
        default:
            return kernel(code);
    }
}

SMCError SMCError::withDetail(std::string detail) const {
    SMCError copy = *this;
    copy.detail_ = std::move(detail);
    return copy;
}

std::string SMCError::explanation() const {
    if (detail_.empty()) {
        return description_;
    }
    if (kind_ == Kind::noService || kind_ == Kind::openFailed) {
        return detail_;
    }
    return description_ + " (" + detail_ + ")";
}

bool SMCError::concernsConnection() const {
    switch (kind_) {
        case Kind::keyNotFound:
        case Kind::sizeMismatch:
        case Kind::unsupportedType:
        case Kind::firmware:
            return false;
        default:
            return true;
    }
}

bool SMCError::operator==(const SMCError &other) const {
    return kind_ == other.kind_ && key_ == other.key_ && type_ == other.type_ &&
           code_ == other.code_;
}

namespace {

// Throws the error for a failed call, with the transport's account of a kernel-level
// failure.
void check(std::int32_t status, FourCC key, FourCC type = FourCC::unknown) {
    if (status != SMC_OK) {
        SMCError error = SMCError::fromStatus(status, key, type);
        throw error.concernsConnection() ? error.withDetail(smc_error_detail()) : error;
    }
}

}  // namespace

SMC::SMC() {
    std::int32_t status = smc_open(&conn_);
    if (status != SMC_OK) {
        throw SMCError::fromStatus(status, FourCC::unknown, FourCC::unknown)
            .withDetail(smc_open_detail());
    }
}

SMC::SMC(csmc::OpenedTransport opened) {
    check(csmc::openConnection(&conn_, std::move(opened)), FourCC::unknown);
}

SMC::SMC(std::unique_ptr<csmc::Transport> transport) {
    check(csmc::openConnection(&conn_, std::move(transport)), FourCC::unknown);
}

SMC::~SMC() {
    smc_close(conn_);
}

std::string SMC::openDetail() {
    return smc_open_detail();
}

std::uint32_t SMC::keyCount() {
    std::uint32_t count = 0;
    check(smc_key_count(conn_, &count), FourCC("#KEY"));
    return count;
}

FourCC SMC::key(std::uint32_t at) {
    std::uint32_t raw = 0;
    check(smc_key_at_index(conn_, at, &raw), FourCC::unknown);
    return FourCC(raw);
}

std::vector<FourCC> SMC::allKeys() {
    std::uint32_t count = keyCount();
    std::vector<FourCC> keys;
    keys.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        std::uint32_t raw = 0;
        if (smc_key_at_index(conn_, i, &raw) == SMC_OK) {
            keys.emplace_back(raw);
        }
    }
    return keys;
}

SMCKeyInfo SMC::info(FourCC key) {
    smc_key_info raw{};
    check(smc_key_info_get(conn_, key.rawValue, &raw), key);
    return {FourCC(raw.key), FourCC(raw.type), raw.size, raw.attributes};
}

void SMC::seed(const SMCKeyInfo &info) {
    smc_key_info raw{info.key.rawValue, info.type.rawValue, info.size, info.attributes};
    smc_key_info_seed(conn_, &raw);
}

bool SMC::has(FourCC key) {
    smc_key_info raw{};
    return smc_key_info_get(conn_, key.rawValue, &raw) == SMC_OK;
}

SMCValue SMC::read(FourCC key) {
    smc_value raw{};
    check(smc_read(conn_, key.rawValue, &raw), key);
    return {key, FourCC(raw.type), {raw.bytes, raw.bytes + raw.size}};
}

double SMC::readDouble(FourCC key) {
    double value = 0;
    std::int32_t status = smc_read_double(conn_, key.rawValue, &value);
    if (status != SMC_OK) {
        // Name the key's real type in the error; the lookup is normally a cache hit and is
        // paid only on this failure path. The cause is taken before it can be replaced.
        std::string detail = smc_error_detail();
        smc_key_info raw{};
        FourCC type = smc_key_info_get(conn_, key.rawValue, &raw) == SMC_OK ? FourCC(raw.type)
                                                                            : FourCC::unknown;
        SMCError error = SMCError::fromStatus(status, key, type);
        throw error.concernsConnection() ? error.withDetail(std::move(detail)) : error;
    }
    return value;
}

void SMC::write(FourCC key, std::span<const std::uint8_t> bytes) {
    check(smc_write(conn_, key.rawValue, bytes.data(), static_cast<std::uint32_t>(bytes.size())),
          key);
}

void SMC::write(FourCC key, double value) {
    smc_key_info raw{};
    std::int32_t status = smc_key_info_get(conn_, key.rawValue, &raw);
    if (status == static_cast<std::int32_t>(SMC_KERN_NOT_PERMITTED)) {
        throw SMCError::notPrivileged();  // as smc_write says: no lookup, no write
    }
    check(status, key);
    SMCKeyInfo keyInfo{FourCC(raw.key), FourCC(raw.type), raw.size, raw.attributes};
    std::vector<std::uint8_t> bytes = SMCCodec::encode(value, keyInfo.type, keyInfo.size);
    write(key, bytes);
}

}  // namespace ostrel
