#include "ostrel/platform/environment.h"

#include <cstdlib>

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
