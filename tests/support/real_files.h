// The real file system for tests that change one thing about it: derive, and override
// what the test needs to count or to fail.
#pragma once

#include "ostrel/platform/files.h"

namespace ostrel::test {

class RealFiles : public platform::Files {
  public:
    using Result = platform::FileResult;
    std::optional<std::string> read(const std::string &p) const override { return real.read(p); }
    std::optional<std::string> readAtMost(const std::string &p, std::size_t n) const override {
        return real.readAtMost(p, n);
    }
    std::optional<std::string> readOwn(const std::string &p, std::size_t n) const override {
        return real.readOwn(p, n);
    }
    std::optional<std::string> readTail(const std::string &p, std::size_t n) const override {
        return real.readTail(p, n);
    }
    std::optional<std::vector<std::string>> list(const std::string &d) const override {
        return real.list(d);
    }
    Result createDirectories(const std::string &d, unsigned mode) const override {
        return real.createDirectories(d, mode);
    }
    Result writeAtomic(const std::string &p, const std::string &c, unsigned m) const override {
        return real.writeAtomic(p, c, m);
    }
    bool remove(const std::string &p) const override { return real.remove(p); }
    platform::FileKind kind(const std::string &p) const override { return real.kind(p); }
    Result setMode(const std::string &p, unsigned mode) const override {
        return real.setMode(p, mode);
    }

  private:
    const platform::Files &real = platform::realFiles();
};

}  // namespace ostrel::test
