// The process environment, behind an interface so that code which reads variables can be
// tested with a fake instead of the real process environment.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace ostrel::platform {

class Environment {
  public:
    virtual ~Environment() = default;
    // The variable's value, or nothing when it is unset. An empty value is returned as "".
    virtual std::optional<std::string> get(const std::string &name) const = 0;
};

// The real process environment (getenv). Safe to call from any thread as long as nobody
// calls setenv concurrently, which this project never does after start-up.
const Environment &processEnvironment();

// A fixed set of variables, for tests.
class FakeEnvironment final : public Environment {
  public:
    FakeEnvironment() = default;
    explicit FakeEnvironment(std::map<std::string, std::string> vars) : vars_(std::move(vars)) {}
    std::optional<std::string> get(const std::string &name) const override;
    void set(const std::string &name, std::string value) { vars_[name] = std::move(value); }
    void unset(const std::string &name) { vars_.erase(name); }

  private:
    std::map<std::string, std::string> vars_;
};

}  // namespace ostrel::platform
