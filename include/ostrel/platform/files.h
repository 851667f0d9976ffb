// File access behind an interface: the real file system, or an in-memory fake for tests.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace ostrel::platform {

class Files {
  public:
    virtual ~Files() = default;
    // The whole contents of the file, or nothing when it cannot be opened or read.
    virtual std::optional<std::string> read(const std::string &path) const = 0;
};

// The real file system.
const Files &realFiles();

// An in-memory tree of files keyed by path, for tests.
class FakeFiles final : public Files {
  public:
    std::optional<std::string> read(const std::string &path) const override;
    void put(const std::string &path, std::string contents) { files_[path] = std::move(contents); }

  private:
    std::map<std::string, std::string> files_;
};

}  // namespace ostrel::platform
