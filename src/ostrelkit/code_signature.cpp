// The signature block (layout in docs/code-signing.md), keys, requirements and the checks.

#include "ostrel/code_signature.h"

#include <fmt/format.h>
#include <sodium.h>

#include <algorithm>
#include <cstring>

namespace ostrel {

namespace {

// The trailer: the body's length (32 bits, little-endian), then this mark.
constexpr std::string_view kMagic = "OSTRELSIGNED";
constexpr std::size_t kTrailerSize = 4 + kMagic.size();
constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kAdhoc = 0;
constexpr std::uint8_t kEd25519 = 1;
// Body: version, kind, identifier length (16 bits LE), identifier, hash, [key, signature].
constexpr std::size_t kBodyHeader = 4;
constexpr std::size_t kMinBody = kBodyHeader + 1 + sizeof(ContentHash);
constexpr std::size_t kMaxBody =
    kBodyHeader + 255 + sizeof(ContentHash) + sizeof(PublicKey) + sizeof(KeySignature);

constexpr std::string_view kKeyHeader = "ostrel signing key 1";

constexpr const char *kNoCrypto = "the crypto library could not be initialised";

// libsodium must be initialised once before use; sodium_init is thread-safe.
bool sodiumReady() {
    static const bool ready = sodium_init() >= 0;
    return ready;
}

void needSodium() {
    if (!sodiumReady()) {
        throw CodeSigningError(kNoCrypto);
    }
}

const unsigned char *bytes(std::string_view s) {
    return reinterpret_cast<const unsigned char *>(s.data());
}

template <std::size_t N>
std::string_view view(const std::array<std::uint8_t, N> &a) {
    return {reinterpret_cast<const char *>(a.data()), N};
}

template <std::size_t N>
std::array<std::uint8_t, N> take(std::string_view s) {
    std::array<std::uint8_t, N> a;
    std::memcpy(a.data(), s.data(), N);
    return a;
}

std::uint32_t le32(std::string_view s) {
    return static_cast<std::uint32_t>(bytes(s)[0]) | static_cast<std::uint32_t>(bytes(s)[1]) << 8 |
           static_cast<std::uint32_t>(bytes(s)[2]) << 16 |
           static_cast<std::uint32_t>(bytes(s)[3]) << 24;
}

ContentHash hashOf(std::string_view data) {
    ContentHash hash;
    crypto_generichash(hash.data(), hash.size(), bytes(data), data.size(), nullptr, 0);
    return hash;
}

// Hashes the first `size` bytes of `file`; returns 0 or the errno of a read.
int hashContent(const platform::ReadableFile &file, std::uint64_t size, ContentHash &out) {
    crypto_generichash_state state;
    crypto_generichash_init(&state, nullptr, 0, out.size());
    std::array<char, 65536> chunk;
    for (std::uint64_t done = 0; done < size;) {
        std::size_t n =
            static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), size - done));
        if (int error = file.readAt(done, std::span(chunk.data(), n))) {
            return error;
        }
        crypto_generichash_update(&state, bytes({chunk.data(), n}), n);
        done += n;
    }
    crypto_generichash_final(&state, out.data(), out.size());
    return 0;
}

// Fills identifier, hash and key from a body whose length the trailer gave; false (with
// the problem set) when it does not parse.
bool parseBody(std::string_view body, SignatureInfo &info) {
    std::uint8_t version = bytes(body)[0], kind = bytes(body)[1];
    std::size_t idLength = bytes(body)[2] | static_cast<std::size_t>(bytes(body)[3]) << 8;
    if (version != kVersion) {
        info.problem = "not signed: unknown signature format " + std::to_string(version);
        return false;
    }
    std::size_t keyed = kind == kEd25519 ? sizeof(PublicKey) + sizeof(KeySignature) : 0;
    std::string_view identifier = body.substr(kBodyHeader, std::min(idLength, body.size()));
    if ((kind != kAdhoc && kind != kEd25519) ||
        body.size() != kBodyHeader + idLength + sizeof(ContentHash) + keyed ||
        !validSigningIdentifier(identifier)) {
        info.problem = "not signed: damaged signature block";
        return false;
    }
    info.identifier = identifier;
    std::string_view rest = body.substr(kBodyHeader + idLength);
    info.hash = take<sizeof(ContentHash)>(rest);
    if (keyed != 0) {
        info.key = take<sizeof(PublicKey)>(rest.substr(sizeof(ContentHash)));
        info.team = teamIdentifierOf(*info.key);
    }
    return true;
}

SignatureInfo unreadable(SignatureInfo info, const std::string &problem) {
    info.status = SignatureStatus::unreadable;
    info.problem = problem;
    return info;
}

std::string quoted(std::string_view s) {
    return "\"" + std::string(s) + "\"";
}

}  // namespace

std::string teamIdentifierOf(const PublicKey &key) {
    static constexpr char kAlphabet[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
    sodiumReady();
    ContentHash hash = hashOf(view(key));
    std::uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) {
        bits = bits << 8 | hash[static_cast<std::size_t>(i)];
    }
    std::string team;
    for (int i = 0; i < 10; ++i) {
        team += kAlphabet[(bits >> (59 - 5 * i)) & 31];
    }
    return team;
}

bool validSigningIdentifier(std::string_view identifier) {
    return !identifier.empty() && identifier.size() <= 255 &&
           std::all_of(identifier.begin(), identifier.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '-' || c == '_';
           });
}

SigningKey::SigningKey(const std::array<std::uint8_t, 32> &seed) : seed_(seed) {
    needSodium();
    crypto_sign_seed_keypair(publicKey_.data(), secret_.data(), seed_.data());
}

SigningKey::SigningKey(SigningKey &&other) noexcept
    : seed_(other.seed_), secret_(other.secret_), publicKey_(other.publicKey_) {}

SigningKey::~SigningKey() {
    sodium_memzero(seed_.data(), seed_.size());
    sodium_memzero(secret_.data(), secret_.size());
}

SigningKey SigningKey::generate() {
    needSodium();
    std::array<std::uint8_t, 32> seed;
    randombytes_buf(seed.data(), seed.size());
    SigningKey key(seed);
    sodium_memzero(seed.data(), seed.size());
    return key;
}

SigningKey SigningKey::fromText(std::string_view text) {
    needSodium();
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    std::size_t newline = text.find('\n');
    std::array<std::uint8_t, 32> seed;
    std::size_t length = 0;
    if (newline == std::string_view::npos || text.substr(0, newline) != kKeyHeader ||
        sodium_base642bin(seed.data(), seed.size(), text.data() + newline + 1,
                          text.size() - newline - 1, nullptr, &length, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0 ||
        length != seed.size()) {
        throw CodeSigningError("not an ostrel signing key");
    }
    SigningKey key(seed);
    sodium_memzero(seed.data(), seed.size());
    return key;
}

SigningKey SigningKey::load(const std::string &path, const platform::FileAccess &files) {
    platform::OpenedFile opened = files.open(path);
    if (opened.error != 0) {
        throw CodeSigningError("cannot open " + path + ": " + platform::errorText(opened.error));
    }
    const platform::FileStatus &st = opened.file->status();
    if (!st.regular() || st.size > 4096) {
        throw CodeSigningError(path + " is not a signing key file");
    }
    if ((st.mode & 077) != 0) {
        throw CodeSigningError(fmt::format(
            "{} may be accessed by others (mode {:04o}); make it private with: chmod 600 {}", path,
            st.mode & 07777, path));
    }
    std::string text(st.size, '\0');
    if (int error = opened.file->readAt(0, text)) {
        throw CodeSigningError("cannot read " + path + ": " + platform::errorText(error));
    }
    try {
        SigningKey key = fromText(text);
        sodium_memzero(text.data(), text.size());
        return key;
    } catch (const CodeSigningError &) {
        sodium_memzero(text.data(), text.size());
        throw CodeSigningError(path + " is not an ostrel signing key");
    }
}

int SigningKey::save(const std::string &path, const platform::FileAccess &files) const {
    char encoded[64];
    sodium_bin2base64(encoded, sizeof encoded, seed_.data(), seed_.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    std::string text = std::string(kKeyHeader) + "\n" + encoded + "\n";
    int error = files.createExclusive(path, text, 0600);
    sodium_memzero(encoded, sizeof encoded);
    sodium_memzero(text.data(), text.size());
    return error;
}

KeySignature SigningKey::sign(std::string_view message) const {
    KeySignature signature;
    crypto_sign_detached(signature.data(), nullptr, bytes(message), message.size(), secret_.data());
    return signature;
}

std::string signatureBlock(std::string_view content, std::string_view identifier,
                           const SigningKey *key) {
    needSodium();
    if (!validSigningIdentifier(identifier)) {
        throw CodeSigningError("cannot sign as " + quoted(identifier) +
                               ": an identifier is 1 to 255 letters, digits, '.', '-' or '_'");
    }
    ContentHash hash = hashOf(content);
    std::string body;
    body += static_cast<char>(kVersion);
    body += static_cast<char>(key != nullptr ? kEd25519 : kAdhoc);
    body += static_cast<char>(identifier.size() & 0xFF);
    body += static_cast<char>(identifier.size() >> 8);
    body += identifier;
    body += view(hash);
    if (key != nullptr) {
        body += view(key->publicKey());
        body += view(key->sign(body));
    }
    std::uint32_t length = static_cast<std::uint32_t>(body.size());
    for (int shift = 0; shift < 32; shift += 8) {
        body += static_cast<char>((length >> shift) & 0xFF);
    }
    body += kMagic;
    return body;
}

SignatureInfo verifySignature(const platform::ReadableFile &file) {
    SignatureInfo info;
    const platform::FileStatus &st = file.status();
    info.contentSize = st.size;
    if (!st.regular()) {
        info.problem = "not a regular file";
        return info;
    }
    info.problem = "not signed";
    std::array<char, kTrailerSize> trailer;
    if (st.size < kTrailerSize) {
        return info;
    }
    if (int error = file.readAt(st.size - kTrailerSize, trailer)) {
        return unreadable(info, "cannot read it: " + platform::errorText(error));
    }
    std::string_view tail(trailer.data(), trailer.size());
    if (tail.substr(4) != kMagic) {
        return info;
    }
    std::uint64_t bodyLength = le32(tail);
    if (bodyLength < kMinBody || bodyLength > kMaxBody || bodyLength > st.size - kTrailerSize) {
        info.problem = "not signed: damaged signature block";
        return info;
    }
    std::string body(bodyLength, '\0');
    std::uint64_t contentSize = st.size - kTrailerSize - bodyLength;
    if (int error = file.readAt(contentSize, body)) {
        return unreadable(info, "cannot read it: " + platform::errorText(error));
    }
    if (!parseBody(body, info)) {
        return info;
    }
    info.contentSize = contentSize;
    if (contentSize > maxSignedSize) {
        return unreadable(info, "too large to verify (over 256 MiB)");
    }
    ContentHash actual;
    if (!sodiumReady()) {
        return unreadable(info, kNoCrypto);
    }
    if (int error = hashContent(file, contentSize, actual)) {
        return unreadable(info, "cannot read it: " + platform::errorText(error));
    }
    info.status = SignatureStatus::invalid;
    if (actual != info.hash) {
        info.problem = "contents changed after signing";
        return info;
    }
    if (info.key) {
        std::string_view message(body.data(), body.size() - sizeof(KeySignature));
        if (crypto_sign_verify_detached(bytes(body.substr(message.size())), bytes(message),
                                        message.size(), info.key->data()) != 0) {
            info.problem = "signature does not match its key";
            return info;
        }
    }
    info.status = SignatureStatus::valid;
    info.problem.clear();
    return info;
}

SignatureInfo verifyFile(const std::string &path, const platform::FileAccess &files) {
    platform::OpenedFile opened = files.open(path);
    if (opened.error != 0) {
        return unreadable({}, "cannot open it: " + platform::errorText(opened.error));
    }
    return verifySignature(*opened.file);
}

std::string CodeRequirement::text() const {
    std::string clause;
    for (const std::string &identifier : identifiers) {
        clause += (clause.empty() ? "identifier " : " or identifier ") + quoted(identifier);
    }
    if (identifiers.size() > 1) {
        clause = "(" + clause + ")";
    }
    std::string teamClause = team ? "team " + quoted(*team) : "";
    if (teamClause.empty() || clause.empty()) {
        return teamClause + clause;
    }
    return teamClause + " and " + clause;
}

std::optional<std::string> CodeRequirement::unmetBy(const SignatureInfo &info) const {
    if (!info.valid()) {
        return info.problem;
    }
    if (!identifiers.empty() &&
        std::find(identifiers.begin(), identifiers.end(), info.identifier) == identifiers.end()) {
        return "signed as " + quoted(info.identifier) + ", which is not accepted";
    }
    if (team && !info.key) {
        return "ad hoc signed, but team " + *team + " is required";
    }
    if (team && info.team != team) {
        return "signed by team " + *info.team + ", not " + *team;
    }
    if (key && info.key != key) {
        return "signed by another key of team " + *info.team;
    }
    return std::nullopt;
}

CodeRequirement clientRequirement(std::optional<std::string> team) {
    return {{std::string(SigningIdentifier::cli), std::string(SigningIdentifier::app)},
            std::move(team),
            std::nullopt};
}

CodeRequirement clientRequirement(const Signer &self) {
    CodeRequirement requirement = clientRequirement(self.team);
    requirement.key = self.key;
    return requirement;
}

namespace CodeSignature {

std::optional<Signer> signer(const platform::FileAccess &files) {
    SignatureInfo info = verifyFile("/proc/self/exe", files);
    if (!info.valid() || !info.key) {
        return std::nullopt;
    }
    return Signer{*info.team, *info.key};
}

std::optional<std::string> teamIdentifier(const platform::FileAccess &files) {
    std::optional<Signer> self = signer(files);
    return self ? std::optional(self->team) : std::nullopt;
}

}  // namespace CodeSignature

namespace HelperSelfUpdate {

CodeRequirement requirement(const std::string &team) {
    return {{std::string(SigningIdentifier::helper)}, team, std::nullopt};
}

CodeRequirement requirement(const Signer &self) {
    CodeRequirement result = requirement(self.team);
    result.key = self.key;
    return result;
}

bool satisfies(const std::string &path, const std::string &team,
               const platform::FileAccess &files) {
    return satisfies(path, requirement(team), files);
}

bool satisfies(const std::string &path, const CodeRequirement &requirement,
               const platform::FileAccess &files) {
    try {
        return requirement.isSatisfiedBy(verifyFile(path, files));
    } catch (const std::exception &) {
        return false;  // out of memory: unverifiable, so refused
    }
}

}  // namespace HelperSelfUpdate

}  // namespace ostrel
