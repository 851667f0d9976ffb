// Machine profiles: the text files that describe a virtual Mac: its SMC key table, its
// physics and firmware, its temperature-sensor services and its battery.
//
// The format is documented in docs/vsmc-profiles.md. In short, one directive per line:
//
//     # a comment
//     model MacBookPro10,1
//     key TC0P sp78 2 0xc0 63.4
//     key FS!  ui16 2 0xc0 0
//     key F0ID {fds 16 0x80 <00 00 0c 00> "Left side"
//     physics cpu-max-power 45
//     firmware fan-curve-high 90
//     bind TC0E cpu +3
//     sensor "PMU tdie1" cpu -2
//     battery design-capacity 8460
//
// Parsing is pure (text in, Profile out); loading by name or path reads a file.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "csmc/key_rows.h"
#include "ostrel/platform/files.h"
#include "ostrel/vsmc/params.h"

namespace ostrel::vsmc {

// One key of an SMC key table, and its "key ..." line; the row format is shared with
// `ostrel smc dump`, below both.
using csmc::codeToken;
using csmc::formatKeyRow;
using csmc::KeyEntry;

struct Profile {
    std::string source;                  // where it came from: a file path or "builtin:NAME"
    std::string model;                   // the model identifier, e.g. "MacBookPro10,1"
    std::vector<KeyEntry> keys;          // in file order
    MachineParams params;                // `physics` and `firmware` lines over the defaults
    std::vector<Binding> bindings;       // `bind` lines, in file order
    std::vector<SensorService> sensors;  // `sensor` lines: the services in their fixed order
    BatteryParams battery;               // `battery` lines
};

// A profile that cannot be used; what() reads "SOURCE:LINE: message" (or "SOURCE: message"
// when no line is to blame).
// `missing()` tells a profile that does not exist from one that does not parse.
class ProfileError : public std::runtime_error {
  public:
    explicit ProfileError(const std::string &message, bool missing = false)
        : std::runtime_error(message), missing_(missing) {}
    bool missing() const { return missing_; }

  private:
    bool missing_;
};

// Parses profile text. `source` names it in error messages. Throws ProfileError.
Profile parseProfile(std::string_view text, const std::string &source);

// Writes a profile in the text format; parseProfile of the result gives the same profile
// (parameters that differ from the defaults, bindings, sensors, battery and keys). Values
// are written as numbers where that is exact, otherwise as bytes or text.
std::string formatProfile(const Profile &profile);

// The names of the profiles built into the binaries, sorted.
std::vector<std::string> builtinProfileNames();

// The text of a built-in profile, or nothing.
std::optional<std::string_view> builtinProfileText(std::string_view name);

// A built-in profile by name, or else the file at that path read through `files`. Throws
// ProfileError when neither exists or the text does not parse.
Profile loadProfile(const std::string &nameOrPath, const platform::Files &files);

// A built-in profile by name. Throws ProfileError (missing) when there is none by that name.
Profile builtinProfile(std::string_view name);

}  // namespace ostrel::vsmc
