// A temporary directory for one test, removed with everything in it afterwards.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace ostrel::test {

class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "ostrel-test-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }

    // Writes a file below the directory, creating its parents; returns its full path.
    std::string write(const std::string &relative, const std::string &contents) const {
        std::filesystem::path full = std::filesystem::path(path_) / relative;
        std::filesystem::create_directories(full.parent_path());
        std::ofstream(full, std::ios::binary) << contents;
        return full.string();
    }

  private:
    std::string path_;
};

}  // namespace ostrel::test
