// Code signatures on our executables: the signature block appended to a file, signing keys
// and their team identifiers, requirements, and the checks the daemon makes with them.
//
// A signed file is its contents followed by a block that names the signing identifier,
// holds the BLAKE2b-256 hash of the contents and, for a keyed signature, the signer's
// Ed25519 public key and signature; an ad hoc block has no key and so no team. The byte
// layout is in docs/code-signing.md. The crypto is libsodium's.
//
// Reading a block never trusts the file: every length is checked against the file's size,
// and anything that does not parse is "not signed". None of the checks here throws, and
// none caches: peer_identity.h keeps the cache. Everything here may be used from any
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ostrel/platform/file_access.h"

namespace ostrel {

// The signing identifiers of this system's programs.
namespace SigningIdentifier {
inline constexpr std::string_view helper = "dev.ostrel.helper";
inline constexpr std::string_view cli = "dev.ostrel.cli";
inline constexpr std::string_view app = "dev.ostrel.app";
}  // namespace SigningIdentifier

using ContentHash = std::array<std::uint8_t, 32>;   // BLAKE2b-256
using PublicKey = std::array<std::uint8_t, 32>;     // Ed25519
using KeySignature = std::array<std::uint8_t, 64>;  // Ed25519, detached

// Signing failed, or a key file was refused; what() is the message for the user.
class CodeSigningError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The team identifier of a key: 10 characters from 0-9 and A-Z without I, L, O and U, the
// first 50 bits of the key's BLAKE2b-256 hash in Crockford's base 32.
std::string teamIdentifierOf(const PublicKey &key);

// Whether `identifier` can be signed: 1 to 255 bytes of letters, digits, '.', '-' and '_'.
bool validSigningIdentifier(std::string_view identifier);

// An Ed25519 signing key. The secret half is wiped when the object goes away.
class SigningKey {
  public:
    // A new random key.
    static SigningKey generate();
    // The key in the key-file format (docs/code-signing.md); throws CodeSigningError when
    // the text is not one.
    static SigningKey fromText(std::string_view text);
    // Reads a key file, refusing one that is not a regular file or that its group or others
    // may access. Throws CodeSigningError.
    static SigningKey load(const std::string &path, const platform::FileAccess &files);

    ~SigningKey();
    SigningKey(const SigningKey &) = delete;
    SigningKey &operator=(const SigningKey &) = delete;
    SigningKey(SigningKey &&other) noexcept;
    SigningKey &operator=(SigningKey &&) = delete;

    // Writes the key file: a new file of mode 0600 (never over an existing one). Returns 0
    // or the errno (EEXIST when something is at `path`).
    int save(const std::string &path, const platform::FileAccess &files) const;
    const PublicKey &publicKey() const { return publicKey_; }
    std::string team() const { return teamIdentifierOf(publicKey_); }
    KeySignature sign(std::string_view message) const;

  private:
    explicit SigningKey(const std::array<std::uint8_t, 32> &seed);
    std::array<std::uint8_t, 32> seed_{};
    std::array<std::uint8_t, 64> secret_{};
    PublicKey publicKey_{};
};

// The signature block of `content` under `identifier`, keyed with `key` or ad hoc when it is
// null: the bytes to append to the content. Throws CodeSigningError for an identifier that
// cannot be signed.
std::string signatureBlock(std::string_view content, std::string_view identifier,
                           const SigningKey *key);

enum class SignatureStatus {
    valid,
    notSigned,   // no block, or one that does not parse
    invalid,     // a block whose hash or signature does not match
    unreadable,  // the file could not be opened or read
};

// What a file's signature says.
struct SignatureInfo {
    SignatureStatus status = SignatureStatus::notSigned;
    std::string identifier;           // from the block; empty when there is none
    std::optional<PublicKey> key;     // a keyed block's key, valid or not
    std::optional<std::string> team;  // that key's team identifier
    ContentHash hash{};               // as recorded in the block
    std::uint64_t contentSize = 0;    // bytes before the block (the whole file without one)
    std::string problem;              // why it is not valid, for people; empty when valid

    bool valid() const { return status == SignatureStatus::valid; }
    bool adhoc() const { return !identifier.empty() && !key; }
};

// Reads and checks the signature of an open file: parses the block, hashes the content
// (at most maxSignedSize bytes; larger files are not read) and checks the key's signature.
// Never throws apart from std::bad_alloc.
SignatureInfo verifySignature(const platform::ReadableFile &file);
// The same for the file at `path`; a missing or unreadable path is `unreadable`, anything
// but a regular file `notSigned`.
SignatureInfo verifyFile(const std::string &path, const platform::FileAccess &files);

// Content larger than this is never hashed: verification of a peer must stay bounded.
inline constexpr std::uint64_t maxSignedSize = 256u << 20;

// The signer of a valid keyed signature.
struct Signer {
    std::string team;
    PublicKey key;
};

// Which signatures are acceptable: a valid one whose identifier is one of `identifiers`
// and, when `team` is set, keyed by that team (and, when `key` is set too, by exactly that
// key: a team is only 50 bits of the key, so where the key is known it is what counts).
struct CodeRequirement {
    std::vector<std::string> identifiers;
    std::optional<std::string> team;
    std::optional<PublicKey> key;

    // For logs and docs: `team "T" and (identifier "a" or identifier "b")`; without a team
    // the identifier clause alone.
    std::string text() const;
    // Why `info` falls short, or nothing when it satisfies the requirement.
    std::optional<std::string> unmetBy(const SignatureInfo &info) const;
    bool isSatisfiedBy(const SignatureInfo &info) const { return !unmetBy(info); }
};

// What the daemon requires of its clients: the command-line program or the app, signed
// by the daemon's team when it has one.
CodeRequirement clientRequirement(std::optional<std::string> team);
// The same, held to the daemon's own key.
CodeRequirement clientRequirement(const Signer &self);

namespace CodeSignature {
// The signer of the running executable (/proc/self/exe, read through `files`) when its
// signature is valid and keyed; nothing when it is unsigned, ad hoc, invalid or
// unreadable. Hashes the executable on every call.
std::optional<Signer> signer(const platform::FileAccess &files);
// signer()'s team.
std::optional<std::string> teamIdentifier(const platform::FileAccess &files);
}  // namespace CodeSignature

namespace HelperSelfUpdate {
// A daemon of `team`: identifier "dev.ostrel.helper", keyed by that team.
CodeRequirement requirement(const std::string &team);
// The same, held to `self`'s key.
CodeRequirement requirement(const Signer &self);
// Whether the file at `path` (a symbolic link is followed) carries a valid signature that
// satisfies requirement(team). False for anything that cannot be examined.
bool satisfies(const std::string &path, const std::string &team, const platform::FileAccess &files);
// The same against any requirement (such as one held to a key).
bool satisfies(const std::string &path, const CodeRequirement &requirement,
               const platform::FileAccess &files);
}  // namespace HelperSelfUpdate

}  // namespace ostrel
