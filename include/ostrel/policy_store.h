// The daemon's fan policies across restarts: one JSON file (HelperConstants::policiesFile),
// the policy map in the coding of policy_coding.h, e.g.
//   {"0":{"fixed":{"rpm":2500}},"1":{"fixed":{"rpm":"inf"}}}
// Saving validates every policy first, so an invalid one never reaches the disk; loading
// never fails, so a damaged file can never keep the daemon from starting.
//
// No locking of its own: the daemon calls it from its control queue only.
#pragma once

#include <cstddef>
#include <string>

#include "ostrel/fan_policy.h"
#include "ostrel/platform/files.h"

namespace ostrel::PolicyStore {

// The directory is created with this mode when missing, the file gets this one.
inline constexpr unsigned kDirectoryMode = 0755;
inline constexpr unsigned kFileMode = 0644;
// A file larger than this is not a policies file (sixteen fans with curves of hundreds of
// points stay far below it) and loads as empty.
inline constexpr std::size_t kMaxFileSize = 1 << 20;

// Validates every policy, creates the file's directory when missing, and replaces the file
// atomically and durably (a crash leaves the old or the new file, never an empty one).
// Throws FanControlError for an invalid policy (then nothing is written) and
// std::system_error, whose what() names the path and the reason, when the directory or the
// file cannot be written (then the old file is untouched).
void save(const PolicyMap &policies, const std::string &path, const platform::Files &files);

// The stored policies. Never fails: a missing, unreadable, oversized or undecodable file
// gives an empty map; a member whose key is not a canonical fan index ("0", "1", ...; not
// "01", "+1", "-1") or whose policy is invalid is dropped and the others are kept.
PolicyMap load(const std::string &path, const platform::Files &files) noexcept;

}  // namespace ostrel::PolicyStore
