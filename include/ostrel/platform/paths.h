// Every system path Ostrel uses, in one place.
//
// When OSTREL_ROOT is set, each absolute system path (sockets, installed files, policies,
// log, sysfs, locks) is taken inside that directory, so tests, demos and packaging run the
// real code paths in a temporary tree. The discovery cache is a per-user path and follows
// the XDG rules instead.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "ostrel/platform/environment.h"

namespace ostrel::platform {

class Paths {
  public:
    // Reads OSTREL_ROOT (and the cache variables) from `env`, which must outlive the object.
    explicit Paths(const Environment &env) : env_(env) {}

    // OSTREL_ROOT without trailing slashes, or "" when unset.
    std::string root() const;
    // `absolute` (which starts with '/') inside the root.
    std::string system(std::string_view absolute) const;

    std::string sysfs() const { return system("/sys"); }
    std::string runDirectory() const { return system("/run"); }
    std::string helperSocket() const { return system("/run/dev.ostrel.helper.sock"); }
    std::string vsmcSocket() const { return system("/run/dev.ostrel.vsmc.sock"); }
    std::string applesmcLock() const { return system("/run/dev.ostrel.applesmc.lock"); }
    std::string installedHelper() const { return system("/usr/local/libexec/dev.ostrel.helper"); }
    std::string serviceUnit() const {
        return system("/etc/systemd/system/dev.ostrel.helper.service");
    }
    std::string policiesFile() const { return system("/var/lib/dev.ostrel/fan-policies.json"); }
    std::string helperLog() const { return system("/var/log/dev.ostrel.helper.log"); }

    // Where self-update may take a new daemon from, each inside the root like every path
    // here: a source's real path must begin with one of them. "*" stands for one path
    // component (a user's name). The package puts its copy at /usr/lib/ostrel/ostrel-helper.
    static constexpr std::array<std::string_view, 4> selfUpdateSources = {
        "/opt/ostrel/", "/usr/lib/ostrel/", "/usr/local/lib/ostrel/", "/home/*/.local/lib/ostrel/"};

    // $XDG_CACHE_HOME/dev.ostrel/discovery-v2.txt when XDG_CACHE_HOME is set and absolute,
    // else HOME/.cache/dev.ostrel/discovery-v2.txt, where HOME is $HOME when it is set and
    // not empty, else the account record's home directory, else $HOME as it is (empty)
    // when it is set. With no HOME and no record: TMP/dev.ostrel-UID/discovery-v2.txt, TMP
    // being $TMPDIR when absolute, else the system's (P_tmpdir), UID the user id.
    std::string discoveryCache() const;

  private:
    const Environment &env_;
};

}  // namespace ostrel::platform
