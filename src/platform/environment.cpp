#include "ostrel/platform/environment.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace ostrel::platform {

namespace {

class ProcessEnvironment final : public Environment {
  public:
    std::optional<std::string> get(const std::string &name) const override {
        const char *value = std::getenv(name.c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    }

    std::optional<std::string> accountHome() const override {
        long size = sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
        passwd entry{};
        passwd *found = nullptr;
        if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
            found == nullptr) {
            return std::nullopt;
        }
        return std::string(found->pw_dir != nullptr ? found->pw_dir : "");
    }

    unsigned userId() const override { return geteuid(); }
};

}  // namespace

const Environment &processEnvironment() {
    static const ProcessEnvironment env;
    return env;
}

std::optional<std::string> FakeEnvironment::get(const std::string &name) const {
    auto it = vars_.find(name);
    if (it == vars_.end()) {
        return std::nullopt;
    }
    return it->second;
}

}  // namespace ostrel::platform
