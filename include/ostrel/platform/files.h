// File access behind an interface: the real file system, or an in-memory fake for tests.
// Paths are plain strings; nothing here follows OSTREL_ROOT by itself (see Paths).
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace ostrel::platform {

// What a path names.
enum class FileKind { none, regular, directory, socket, other };

// What a change to the file system came to: success, or the step that failed, on which
// path, and the system's reason (an errno value in the generic category).
struct FileResult {
    std::error_code error;  // empty on success
    std::string operation;  // what was being done, e.g. "write" or "create directory"
    std::string path;       // the path it was done to

    bool ok() const { return !error; }
    // "cannot write /var/lib/x.json: Read-only file system"; "" on success.
    std::string message() const;
    // Throws std::system_error (what() is message()) when the operation failed.
    void check() const;

    static FileResult failure(std::string operation, std::string path, int errnoValue);
};

class Files {
  public:
    virtual ~Files() = default;
    // The whole contents of the file, or nothing when it cannot be opened. A read that
    // fails part-way ends the contents there: the bytes read before it are returned.
    virtual std::optional<std::string> read(const std::string &path) const = 0;
    // Like read, but a file that holds more than `maxBytes`, or fails part-way, gives
    // nothing as well, and no more than maxBytes + 1 bytes are ever held while finding out.
    virtual std::optional<std::string> readAtMost(const std::string &path,
                                                  std::size_t maxBytes) const = 0;
    // Like readAtMost, for a file this process may trust: a regular file (not a link) that
    // belongs to the calling user or to root and that neither its group nor others may
    // write. Nothing for any other file, so a file another user planted is never read.
    virtual std::optional<std::string> readOwn(const std::string &path,
                                               std::size_t maxBytes) const = 0;
    // The file's last `maxBytes` bytes (all of it when it is shorter), for a file that only
    // grows, such as a log; nothing when it cannot be opened or read.
    virtual std::optional<std::string> readTail(const std::string &path,
                                                std::size_t maxBytes) const = 0;
    // The names in a directory (no "." or ".."), sorted; nothing when it cannot be listed.
    virtual std::optional<std::vector<std::string>> list(const std::string &dir) const = 0;
    // Creates the directory and its missing parents, each one it creates with exactly `mode`
    // (the umask does not narrow it); directories that exist keep theirs. Succeeds when the
    // directory exists afterwards.
    virtual FileResult createDirectories(const std::string &dir, unsigned mode) const = 0;
    // Replaces the file's contents atomically and durably: the data goes to a temporary file
    // in the same directory, which is given `mode` and flushed to the disk, then renamed
    // over the file, and the directory is flushed too. So a crash or a power cut at any
    // point leaves either the old or the new contents, never a mix or an empty file. On a
    // failure before the rename the old file is untouched and the temporary file removed; a
    // failure of the last flush is reported although the new contents are in place. A
    // failure to set the mode is ignored (the contents matter more).
    virtual FileResult writeAtomic(const std::string &path, const std::string &contents,
                                   unsigned mode) const = 0;
    // Deletes the file; false when it did not exist or could not be removed.
    virtual bool remove(const std::string &path) const = 0;
    // What is at `path`, a final symbolic link not followed (it is `other`); `none` when
    // nothing is there or it cannot be examined.
    virtual FileKind kind(const std::string &path) const = 0;
    // Sets the permission bits (chmod).
    virtual FileResult setMode(const std::string &path, unsigned mode) const = 0;
};

// The directory part of a path: "/a/b" for "/a/b/c", "/" for "/c", "." for "c".
std::string parentDirectory(const std::string &path);

// The real file system.
const Files &realFiles();

// An in-memory tree of files keyed by path, for tests. Directories exist implicitly when a
// file lies below them, or explicitly after createDirectories.
class FakeFiles final : public Files {
  public:
    std::optional<std::string> read(const std::string &path) const override;
    std::optional<std::string> readAtMost(const std::string &path,
                                          std::size_t maxBytes) const override;
    std::optional<std::string> readOwn(const std::string &path,
                                       std::size_t maxBytes) const override;
    std::optional<std::string> readTail(const std::string &path,
                                        std::size_t maxBytes) const override;
    std::optional<std::vector<std::string>> list(const std::string &dir) const override;
    FileResult createDirectories(const std::string &dir, unsigned mode) const override;
    FileResult writeAtomic(const std::string &path, const std::string &contents,
                           unsigned mode) const override;
    bool remove(const std::string &path) const override;
    FileKind kind(const std::string &path) const override;
    FileResult setMode(const std::string &path, unsigned mode) const override;

    void put(const std::string &path, std::string contents) { files_[path] = std::move(contents); }
    // A file that belongs to another user: read() gives it, readOwn() does not.
    void putForeign(const std::string &path, std::string contents) {
        put(path, std::move(contents));
        foreign_.insert(path);
    }
    // Makes writes fail with EROFS, as on a read-only file system.
    void setReadOnly(bool readOnly) { readOnly_ = readOnly; }
    // The mode a file or directory was last given by writeAtomic, createDirectories or
    // setMode.
    std::optional<unsigned> mode(const std::string &path) const;

  private:
    mutable std::map<std::string, std::string> files_;
    mutable std::map<std::string, unsigned> dirs_;  // created directories and their modes
    mutable std::map<std::string, unsigned> modes_;
    mutable std::set<std::string> foreign_;
    bool readOnly_ = false;
};

}  // namespace ostrel::platform
