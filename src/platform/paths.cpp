#include "ostrel/platform/paths.h"

#include <cstdio>

namespace ostrel::platform {

std::string Paths::root() const {
    std::string root = env_.get("OSTREL_ROOT").value_or("");
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    return root;
}

std::string Paths::system(std::string_view absolute) const {
    return root() + std::string(absolute);
}

std::string Paths::discoveryCache() const {
    constexpr std::string_view kName = "discovery-v2.txt";
    std::string xdg = env_.get("XDG_CACHE_HOME").value_or("");
    if (!xdg.empty() && xdg.front() == '/') {
        return xdg + "/dev.ostrel/" + std::string(kName);
    }
    std::optional<std::string> home = env_.get("HOME");
    if (!home || home->empty()) {
        // The account record knows better than an empty HOME; an empty HOME is used as it
        // is only when there is no record.
        if (std::optional<std::string> account = env_.accountHome()) {
            home = account;
        }
    }
    if (home) {
        return *home + "/.cache/dev.ostrel/" + std::string(kName);
    }
    // No home at all: the temporary directory, in a directory of this user's own. A fixed
    // name there could be created by anyone, so it carries the user id, and the cache file
    // is trusted only when it belongs to this user (Files::readOwn).
    std::string tmp = env_.get("TMPDIR").value_or("");
    if (tmp.empty() || tmp.front() != '/') {
        tmp = P_tmpdir;
    }
    while (tmp.size() > 1 && tmp.back() == '/') {
        tmp.pop_back();
    }
    return tmp + "/dev.ostrel-" + std::to_string(env_.userId()) + "/" + std::string(kName);
}

}  // namespace ostrel::platform
