// File access behind an interface: the real file system, or an in-memory fake for tests.
// Paths are plain strings; nothing here follows OSTREL_ROOT by itself (see Paths).
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ostrel::platform {

class Files {
  public:
    virtual ~Files() = default;
    // The whole contents of the file, or nothing when it cannot be opened. A read that
    // fails part-way ends the contents there: the bytes read before it are returned.
    virtual std::optional<std::string> read(const std::string &path) const = 0;
    // The same for a file this process may trust: a regular file (not a link) that belongs
    // to the calling user or to root and that neither its group nor others may write.
    // Nothing for any other file, so a file another user planted is never read.
    virtual std::optional<std::string> readOwn(const std::string &path) const = 0;
    // The names in a directory (no "." or ".."), sorted; nothing when it cannot be listed.
    virtual std::optional<std::vector<std::string>> list(const std::string &dir) const = 0;
    // Creates the directory and its missing parents; true when it exists afterwards.
    virtual bool createDirectories(const std::string &dir) const = 0;
    // Replaces the file's contents atomically: the data goes to a temporary file in the same
    // directory, which is then renamed over the file. False (and the old file untouched) on
    // any failure.
    virtual bool writeAtomic(const std::string &path, const std::string &contents) const = 0;
    // Deletes the file; false when it did not exist or could not be removed.
    virtual bool remove(const std::string &path) const = 0;
};

// The real file system.
const Files &realFiles();

// An in-memory tree of files keyed by path, for tests. Directories exist implicitly when a
// file lies below them, or explicitly after createDirectories.
class FakeFiles final : public Files {
  public:
    std::optional<std::string> read(const std::string &path) const override;
    std::optional<std::string> readOwn(const std::string &path) const override;
    std::optional<std::vector<std::string>> list(const std::string &dir) const override;
    bool createDirectories(const std::string &dir) const override;
    bool writeAtomic(const std::string &path, const std::string &contents) const override;
    bool remove(const std::string &path) const override;

    void put(const std::string &path, std::string contents) { files_[path] = std::move(contents); }
    // A file that belongs to another user: read() gives it, readOwn() does not.
    void putForeign(const std::string &path, std::string contents) {
        put(path, std::move(contents));
        foreign_.insert(path);
    }
    // Makes writes fail, as on a read-only or full file system.
    void setReadOnly(bool readOnly) { readOnly_ = readOnly; }

  private:
    mutable std::map<std::string, std::string> files_;
    mutable std::map<std::string, bool> dirs_;
    mutable std::set<std::string> foreign_;
    bool readOnly_ = false;
};

}  // namespace ostrel::platform
