// The SMC connection and its vocabulary: four-character codes, key information, raw
// values, the value codec and the typed error of every SMC operation.
#pragma once

#include <compare>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "csmc/smc.h"
#include "ostrel/json.h"

namespace csmc {
class Transport;
struct OpenedTransport;
}  // namespace csmc

namespace ostrel {

// A four-character key or type code, first character in the most significant byte.
struct FourCC {
    std::uint32_t rawValue = 0;

    constexpr FourCC() = default;
    constexpr explicit FourCC(std::uint32_t raw) : rawValue(raw) {}
    // The first four bytes of the text, padded with blanks: "flt" is 'flt ', "" is four
    // blanks, "ABCDE" is 'ABCD'.
    constexpr FourCC(std::string_view text) {
        for (std::size_t i = 0; i < 4; ++i) {
            unsigned char c = i < text.size() ? static_cast<unsigned char>(text[i]) : ' ';
            rawValue = (rawValue << 8) | c;
        }
    }
    constexpr FourCC(const char *text) : FourCC(std::string_view(text)) {}

    // The four characters, each byte outside 32..126 shown as '?'.
    std::string description() const;

    constexpr auto operator<=>(const FourCC &) const = default;

    // The placeholder for an unknown key or type.
    static const FourCC unknown;
};

inline constexpr FourCC FourCC::unknown{0x3F3F3F3Fu};

void to_json(Json &json, const FourCC &code);

// What the SMC reports about a key.
struct SMCKeyInfo {
    FourCC key;
    FourCC type;
    std::uint32_t size = 0;
    std::uint8_t attributes = 0;

    bool operator==(const SMCKeyInfo &) const = default;
};

void to_json(Json &json, const SMCKeyInfo &info);

// One read of a key: exactly as many bytes as the key's size.
struct SMCValue {
    FourCC key;
    FourCC type;
    std::vector<std::uint8_t> bytes;

    // The bytes decoded by the type, or nothing when the type or size is not decodable.
    std::optional<double> doubleValue() const;
    // "00 1f a0"; empty for no bytes.
    std::string hex() const;
    // A short human text: the number, a quoted string for ch8* and {fds, or [hex].
    std::string display() const;
};

// SMC bytes <-> numbers (the channel's codec on containers).
namespace SMCCodec {
std::optional<double> decode(std::span<const std::uint8_t> bytes, FourCC type);
// Exactly `size` bytes; throws SMCError unsupportedType (key '????') when the type, size
// (above 32 or 0) or value cannot be encoded.
std::vector<std::uint8_t> encode(double value, FourCC type, std::size_t size);
}  // namespace SMCCodec

// The typed error of every SMC operation; what() is the message a user sees.
class SMCError : public std::exception {
  public:
    enum class Kind {
        keyNotFound,
        sizeMismatch,
        unsupportedType,
        firmware,
        kernel,
        noService,
        openFailed,
        notPrivileged,
        outOfMemory,
    };

    static SMCError keyNotFound(FourCC key) { return {Kind::keyNotFound, key, {}, 0}; }
    static SMCError sizeMismatch(FourCC key) { return {Kind::sizeMismatch, key, {}, 0}; }
    static SMCError unsupportedType(FourCC key, FourCC type) {
        return {Kind::unsupportedType, key, type, 0};
    }
    static SMCError firmware(FourCC key) { return {Kind::firmware, key, {}, 0}; }
    static SMCError kernel(std::int32_t code) { return {Kind::kernel, {}, {}, code}; }
    static SMCError noService() { return {Kind::noService, {}, {}, 0}; }
    static SMCError openFailed() { return {Kind::openFailed, {}, {}, 0}; }
    static SMCError notPrivileged() { return {Kind::notPrivileged, {}, {}, 0}; }
    static SMCError outOfMemory() { return {Kind::outOfMemory, {}, {}, 0}; }

    // The error for a channel status (which must not be SMC_OK).
    static SMCError fromStatus(std::int32_t code, FourCC key, FourCC type);

    Kind kind() const { return kind_; }
    FourCC key() const { return key_; }    // keyNotFound, sizeMismatch, unsupportedType, firmware
    FourCC type() const { return type_; }  // unsupportedType
    std::int32_t code() const { return code_; }  // kernel
    const char *what() const noexcept override { return description_.c_str(); }
    const std::string &description() const { return description_; }

    // What the platform said about the failure, when it said more than the case does: for
    // a failed open, what was tried and what failed ("no virtual Mac answers at
    // /tmp/vsmc.sock (no such socket); ..."); for a kernel-level failure, the Linux cause
    // ("applesmc: reading /sys/.../key_at_index_data: No such device"). Often empty.
    const std::string &detail() const { return detail_; }
    SMCError withDetail(std::string detail) const;
    // The message for a user: the detail alone for a failed open (it says more than
    // "AppleSMC service not found"), else the description followed by the detail in
    // parentheses, else the description.
    std::string explanation() const;
    // Whether the failure concerns the connection rather than one key (the service, the
    // kernel, privileges, memory): every later call is likely to fail the same way.
    bool concernsConnection() const;

    // Same case and payload (the payloads a case does not carry are not compared; nor is
    // the detail).
    bool operator==(const SMCError &other) const;

  private:
    SMCError(Kind kind, FourCC key, FourCC type, std::int32_t code);

    Kind kind_;
    FourCC key_;
    FourCC type_;
    std::int32_t code_;
    std::string description_;
    std::string detail_;
};

// The connection to the SMC. Owns one channel connection for its whole life; share it as
// std::shared_ptr<SMC>. No lock of its own: the channel locks only its cache, so any
// thread may call; the daemon calls from its control queue only.
class SMC {
  public:
    // Opens the transport named by OSTREL_SMC, through the transports the program's main
    // installed (smc_open). Throws SMCError (noService, openFailed, outOfMemory) whose
    // detail() (also openDetail()) says what was tried and what failed. Every operation
    // below throws SMCError; kernel-level ones carry the platform's cause in detail().
    SMC();
    // Opens a connection on a transport made by the caller.
    explicit SMC(std::unique_ptr<csmc::Transport> transport);
    // Opens a connection on what a TransportRegistry opened; throws as SMC() does when
    // that failed, with its detail in openDetail().
    explicit SMC(csmc::OpenedTransport opened);
    ~SMC();
    SMC(const SMC &) = delete;
    SMC &operator=(const SMC &) = delete;

    // Why the calling thread's last failed open failed (profile errors and the like).
    static std::string openDetail();

    std::uint32_t keyCount();
    FourCC key(std::uint32_t at);
    // Every key in index order; indexes whose lookup fails are left out.
    std::vector<FourCC> allKeys();
    SMCKeyInfo info(FourCC key);
    void seed(const SMCKeyInfo &info);
    bool has(FourCC key);
    SMCValue read(FourCC key);
    // The key's value as a number; an undecodable value is unsupportedType naming the
    // key's real type.
    double readDouble(FourCC key);
    void write(FourCC key, std::span<const std::uint8_t> bytes);
    // Encodes the number for the key's type and size, then writes it.
    void write(FourCC key, double value);

    // The channel connection, for code that talks to the channel directly (the sampler).
    smc_conn *conn() const { return conn_; }

  private:
    smc_conn *conn_ = nullptr;
};

}  // namespace ostrel
