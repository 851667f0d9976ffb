#include "ostrel/platform/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace ostrel::platform {

namespace {

std::string accountHome() {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "";
}

}  // namespace

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
    constexpr std::string_view kTail = "/dev.ostrel/discovery-v2.txt";
    std::string xdg = env_.get("XDG_CACHE_HOME").value_or("");
    if (!xdg.empty() && xdg.front() == '/') {
        return xdg + std::string(kTail);
    }
    std::string home = env_.get("HOME").value_or("");
    if (home.empty()) {
        home = accountHome();
    }
    if (home.empty()) {
        home = "/tmp";
    }
    return home + "/.cache" + std::string(kTail);
}

}  // namespace ostrel::platform
