// Placing the privileged daemon on the system and removing it again: the systemd unit that
// runs it, and one shell script run as root (through pkexec's prompt for a user who is not
// root) that stops any old copy, installs the executable and the unit, and starts it.
//
// Every path comes from platform::Paths, the programs the script runs included, so under
// OSTREL_ROOT the whole installation happens inside the sandbox, carried out by whatever
// programs the sandbox holds at those paths (tests put recording fakes there).
// docs/operations.md shows the unit line by line and the scripts.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ostrel/platform/environment.h"
#include "ostrel/platform/file_access.h"
#include "ostrel/platform/files.h"
#include "ostrel/platform/paths.h"
#include "ostrel/platform/process.h"

namespace ostrel {

// `text` in single quotes for the shell, each single quote in it written as '\'' (so
// O'Neil becomes 'O'\''Neil'). Safe for any bytes but NUL.
std::string shellQuote(std::string_view text);

// `text` as one argument of a unit's command line: in double quotes, with `\` and `"`
// escaped by a backslash, `%` doubled (specifiers) and `$` doubled (variable expansion),
// and control characters written as \xNN.
std::string systemdQuote(std::string_view text);

class HelperInstaller {
  public:
    // The operating system as the installer sees it; everything must outlive the
    // installer.
    struct Services {
        const platform::Paths *paths = nullptr;
        const platform::Environment *environment = nullptr;  // TMPDIR, HOME
        const platform::Files *files = nullptr;              // the staging unit file
        const platform::FileAccess *fileAccess = nullptr;    // what exists; the running program
        platform::Processes *processes = nullptr;
        platform::ProcessIdentity self;  // root runs the script directly
    };

    // The unit's name, for systemctl.
    static constexpr std::string_view unitName = "dev.ostrel.helper.service";
    // The daemon's executable in the places a package or a user puts it.
    static constexpr std::string_view executableName = "ostrel-helper";

    explicit HelperInstaller(Services services) : services_(services) {}

    // True when both the installed daemon and its unit exist as regular files.
    bool isInstalled() const;

    // The first daemon executable (a regular file someone may execute) among: ostrel-helper
    // next to the running program, ../lib/ostrel/ostrel-helper from there,
    // /usr/lib/ostrel/ostrel-helper, /opt/ostrel/ostrel-helper and
    // $HOME/.local/lib/ostrel/ostrel-helper; nothing when there is none.
    std::optional<std::string> locateHelperBinary() const;

    // The unit's text for the daemon at `binary`, updating itself from `source` when one is
    // given (docs/operations.md fixes it line by line).
    std::string unitText(const std::string &binary, const std::optional<std::string> &source) const;

    // Installs the daemon at `from` and starts it. The unit is staged in
    // $TMPDIR/dev.ostrel.helper.<pid>.service, which is removed afterwards whatever
    // happens; the daemon updates itself from `from`'s real path when that is an acceptable
    // source location. Throws FanControlError (helper): `from` is not an executable file,
    // the staging file cannot be written (nothing runs then), or runPrivileged's errors.
    // Blocks while the user answers the prompt.
    void install(const std::string &from) const;

    // Stops and disables the daemon and removes it, its unit and the stored policies.
    // Succeeds when nothing was installed. Throws runPrivileged's errors.
    void uninstall() const;

    // Runs `script` with /bin/sh as root: directly when this process is root, otherwise
    // through pkexec. Throws FanControlError (helper): "cancelled by user" when the prompt
    // was dismissed, "privileged install failed: " + what the script wrote on standard
    // error (or its exit status) when it failed, "cannot run PROGRAM: ..." when the program
    // cannot be started. Standard input and output stay the caller's (pkexec may prompt on
    // the terminal).
    void runPrivileged(const std::string &script) const;

    // What systemd says of the unit ("active", "inactive", "failed", ...), or nothing when
    // systemctl cannot be run or says nothing. Never throws.
    std::optional<std::string> serviceState() const;

  private:
    // An absolute system path inside the sandbox.
    std::string system(std::string_view absolute) const {
        return services_.paths->system(absolute);
    }
    bool isExecutableFile(const std::string &path) const;

    Services services_;
};

}  // namespace ostrel
