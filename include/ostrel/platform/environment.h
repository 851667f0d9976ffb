// The process environment, behind an interface so that code which reads variables or asks
// who the process runs as can be tested with a fake instead of the real process.
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
    // The home directory in the account record of the process's user, or nothing when
    // there is no record for its user id.
    virtual std::optional<std::string> accountHome() const = 0;
    // The user id the process runs as (its effective id: the one files are created with).
    virtual unsigned userId() const = 0;
};

// The real process environment (getenv). Safe to call from any thread as long as nobody
// calls setenv concurrently, which this project never does after start-up.
const Environment &processEnvironment();

// A fixed set of variables, for tests. By default user 1000 without an account record.
class FakeEnvironment final : public Environment {
  public:
    FakeEnvironment() = default;
    explicit FakeEnvironment(std::map<std::string, std::string> vars) : vars_(std::move(vars)) {}
    std::optional<std::string> get(const std::string &name) const override;
    std::optional<std::string> accountHome() const override { return accountHome_; }
    unsigned userId() const override { return userId_; }
    void set(const std::string &name, std::string value) { vars_[name] = std::move(value); }
    void unset(const std::string &name) { vars_.erase(name); }
    void setAccount(std::optional<std::string> home, unsigned userId) {
        accountHome_ = std::move(home);
        userId_ = userId;
    }

  private:
    std::map<std::string, std::string> vars_;
    std::optional<std::string> accountHome_;
    unsigned userId_ = 1000;
};

}  // namespace ostrel::platform
