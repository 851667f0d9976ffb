// What the daemon and its clients agree on: identifiers, the version they exchange, and
// where the daemon's files live on this system.
//
// The paths come from platform::Paths, so OSTREL_ROOT moves them all into a sandbox.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "ostrel/code_signature.h"
#include "ostrel/platform/paths.h"
#include "ostrel/version.h"

namespace ostrel::HelperConstants {

namespace detail {
// The texts joined at compile time, so that the version is a constant like its parts.
template <const std::string_view &...Parts>
struct Joined {
    static constexpr auto storage = [] {
        std::array<char, (Parts.size() + ...)> out{};
        std::size_t at = 0;
        for (std::string_view part : {Parts...}) {
            for (char c : part) {
                out[at++] = c;
            }
        }
        return out;
    }();
    static constexpr std::string_view value{storage.data(), storage.size()};
};
inline constexpr std::string_view slash = "/";
}  // namespace detail

// The service's name: the systemd unit's stem and the socket's name.
inline constexpr std::string_view label = "dev.ostrel.helper";
// What clients connect to (the same name as `label`).
inline constexpr std::string_view machService = label;
// The version of the control protocol on the socket.
inline constexpr std::string_view protocolVersion = "1";
// What the daemon answers to a version request: the protocol version, a slash and the
// product version ("1/1.1.13").
inline constexpr std::string_view version =
    detail::Joined<protocolVersion, detail::slash, OstrelVersion::string>::value;

// The socket the daemon listens on and clients connect to.
inline std::string socketPath(const platform::Paths &paths) {
    return paths.helperSocket();
}
// Where the daemon's executable is installed; systemd starts it from there.
inline std::string installedBinary(const platform::Paths &paths) {
    return paths.installedHelper();
}
// The installed systemd unit.
inline std::string serviceUnit(const platform::Paths &paths) {
    return paths.serviceUnit();
}
// The stored fan policies.
inline std::string policiesFile(const platform::Paths &paths) {
    return paths.policiesFile();
}
// The daemon's log: systemd appends its standard error there.
inline std::string logFile(const platform::Paths &paths) {
    return paths.helperLog();
}

// What a peer of the daemon must be: the command-line program or the app
// ("dev.ostrel.cli", "dev.ostrel.app"), and, when the running executable carries a valid
// keyed signature, signed with that same key. Computed afresh on every call (it hashes the
// running executable through `files`), so call it once at start-up and keep the value.
inline CodeRequirement clientRequirement(const platform::FileAccess &files) {
    std::optional<Signer> self = CodeSignature::signer(files);
    return self ? ostrel::clientRequirement(*self) : ostrel::clientRequirement(std::nullopt);
}

}  // namespace ostrel::HelperConstants
