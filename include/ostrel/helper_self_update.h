// The daemon replacing its own executable with a newer copy of itself.
//
// A package or a user's install leaves a copy of the daemon in an install location; the
// running daemon, started with `--source PATH`, tries update() every 30 s. An attempt
// stages the copy next to the installed executable, checks the staged copy (signature,
// version) and renames it over the installed one; systemd then restarts the daemon from
// the new file. Only the staged copy is ever executed or moved into place: the source is
// read once, by the copy, so changing it after the checks changes nothing.
//
// Every file-system step goes through FileAccess and the version query through Processes,
// so tests run every outcome on fakes. Nothing here keeps state between attempts.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "ostrel/code_signature.h"
#include "ostrel/platform/file_access.h"
#include "ostrel/platform/paths.h"
#include "ostrel/platform/process.h"

namespace ostrel::HelperSelfUpdate {

// The destination now holds the new executable, which reported `version`.
struct Updated {
    std::string version;
    bool operator==(const Updated &) const = default;
};
// Nothing was replaced; `reason` is ready to log.
struct Rejected {
    std::string reason;
    bool operator==(const Rejected &) const = default;
};
// The source and the destination hold the same bytes.
struct Unchanged {
    bool operator==(const Unchanged &) const = default;
};
using Outcome = std::variant<Updated, Rejected, Unchanged>;

// How long a candidate may take to print its version before it is killed.
inline constexpr std::chrono::seconds versionTimeout{5};

// What one attempt may touch. The references must outlive the call.
struct UpdateServices {
    const platform::FileAccess &files;
    platform::Processes &processes;
    const platform::Paths &paths;  // the install locations follow OSTREL_ROOT
    // Who owns the staged copy: root, or inside an OSTREL_ROOT sandbox the user the daemon
    // runs as (who cannot give files to root).
    std::uint32_t ownerUid = 0;
    std::uint32_t ownerGid = 0;
};

// The real path of `path` when it may serve as a source: `path` itself (not followed if
// it is a link) is a regular file and its real path lies under one of
// Paths::selfUpdateSources inside the root. Nothing otherwise.
std::optional<std::string> acceptableSource(const std::string &path, const platform::Paths &paths,
                                            const platform::FileAccess &files);

// What the executable at `path` prints for `--print-version` (run as a child of its own,
// standard error to /dev/null, killed after versionTimeout), as UTF-8 with bad bytes
// repaired and white space trimmed; nothing when it cannot start, does not exit 0 or
// prints nothing. Blocks the caller for up to versionTimeout.
std::optional<std::string> version(const std::string &path, platform::Processes &processes);

// Orders version strings: runs of digits by their value, any other character by its byte.
// Negative, zero or positive as `a` comes before, with or after `b` ("1.1.9" < "1.1.13").
int compareVersions(std::string_view a, std::string_view b);

// One attempt, in this order: the source must be acceptable; identical bytes are
// Unchanged; the copy is staged as destination + ".new" (a leftover is removed first),
// given to the owner with mode 0755, and must satisfy requirement(team) and report a
// version newer than `current`; then it is renamed over the destination. Every rejection
// removes the staging file. Never throws; blocks for up to versionTimeout and a file
// copy. Reasons (SRC is the source's real path once it is known):
//   "<source> is not usable right now (missing, a link, or not in an install location)"
//   "could not stage SRC", "SRC is not signed by team T", "SRC did not report a version",
//   "SRC is version V, not newer than CURRENT", "could not replace DESTINATION"
Outcome update(const std::string &source, const std::string &destination, const Signer &team,
               std::string_view current, const UpdateServices &services);

}  // namespace ostrel::HelperSelfUpdate
