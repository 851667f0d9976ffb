// A fresh directory for tests that need real files, removed with its contents at the end.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace ostrel::test {

// The bytes of the file at `path` ("" when it cannot be read).
inline std::string fileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class TempDir {
  public:
    // A new directory inside `parent`. Throws std::runtime_error when none can be made.
    explicit TempDir(const std::string &parent = "/tmp") {
        std::string pattern = parent + "/ostrel-test-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a directory in " + parent);
        }
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }

    // Writes `contents` to `relative` below the directory, making the directories on the
    // way; returns the file's path.
    std::string put(const std::string &relative, const std::string &contents) const {
        std::filesystem::path file = std::filesystem::path(path_) / relative;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << contents;
        return file.string();
    }

    // The contents of `relative` below the directory ("" when it cannot be read).
    std::string read(const std::string &relative) const {
        return fileBytes(path_ + "/" + relative);
    }

  private:
    std::string path_;
};

}  // namespace ostrel::test
