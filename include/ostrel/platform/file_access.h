// Files examined byte by byte and by identity: what code signing, peer vetting and the
// daemon's self-update need from the file system. The real implementation, and an
// in-memory fake for tests.
//
// Unlike `Files`, every operation reports the errno it met (0 for success), because the
// callers tell "missing" from "unreadable" from "too big" in their messages. Nothing here
// follows OSTREL_ROOT by itself.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace ostrel::platform {

// What stat(2) says about a file, in fixed-width fields.
struct FileStatus {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedNs = 0;   // mtime, nanoseconds since the epoch
    std::int64_t changedNs = 0;    // ctime: moves on every change, and no one can set it back
    std::uint32_t mode = 0100644;  // type and permission bits as in st_mode
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;

    bool regular() const { return (mode & 0170000) == 0100000; }
};

// A file opened for reading. Reads go to the file that was opened, whatever happens to its
// path afterwards. Safe to use from one thread at a time.
class ReadableFile {
  public:
    virtual ~ReadableFile() = default;
    // The file's status when it was opened.
    virtual const FileStatus &status() const = 0;
    // Fills `out` with the bytes at `offset`. Returns 0, the errno of the read, or EIO when
    // the file ends first (it shrank since it was opened).
    virtual int readAt(std::uint64_t offset, std::span<char> out) const = 0;
};

struct OpenedFile {
    int error = 0;                       // 0, or the errno of the open
    std::unique_ptr<ReadableFile> file;  // set exactly when error is 0
};

struct StatusResult {
    int error = 0;
    FileStatus status;
};

struct TextResult {
    int error = 0;  // 0, the errno of the open or a read, or EFBIG past the limit
    std::string text;
};

// Implementations must be safe to call from several threads at once.
class FileAccess {
  public:
    virtual ~FileAccess() = default;
    // Opens the file (following symbolic links) for reading. Opening never blocks, not even
    // on a FIFO; the caller checks status().regular() before trusting what it reads.
    virtual OpenedFile open(const std::string &path) const = 0;
    // The status of the file the path names (following symbolic links).
    virtual StatusResult stat(const std::string &path) const = 0;
    // The whole file when it holds at most `maxBytes`; meant for small files such as those
    // under /proc, whose size stat does not tell.
    virtual TextResult readText(const std::string &path, std::size_t maxBytes) const = 0;
    // Where the symbolic link at `path` points.
    virtual TextResult readLink(const std::string &path) const = 0;
    // The absolute path `path` names with every symbolic link, "." and ".." resolved
    // (realpath(3)); the file must exist.
    virtual TextResult realPath(const std::string &path) const = 0;
    // Replaces the file's contents atomically (a temporary file in the same directory,
    // renamed over it), giving the new file the permission bits, owner and group of `like`.
    // Returns 0 or an errno; on failure the old file is untouched and no temporary is left.
    virtual int replace(const std::string &path, std::string_view contents,
                        const FileStatus &like) const = 0;
    // Creates a new file with `contents` and exactly the permission bits `mode` (whatever
    // the umask); EEXIST when something is already at `path` (a link counts).
    virtual int createExclusive(const std::string &path, std::string_view contents,
                                std::uint32_t mode) const = 0;

    // What self-update does to put a new executable in place. None follows a symbolic
    // link at `path` (or `from`/`to`): a link is examined, refused or replaced itself.
    //
    // The status of the link itself when `path` is one (lstat).
    virtual StatusResult linkStatus(const std::string &path) const = 0;
    // Copies the regular file `from` into a new file `to` of mode 0600 (EEXIST when
    // something is there) and flushes it; on failure no `to` is left behind. The source
    // is read once, from one descriptor.
    virtual int copyNew(const std::string &from, const std::string &to) const = 0;
    virtual int changeOwner(const std::string &path, std::uint32_t uid,
                            std::uint32_t gid) const = 0;
    // Sets the permission bits (mode & 07777).
    virtual int changeMode(const std::string &path, std::uint32_t mode) const = 0;
    // Moves `from` over `to` atomically (rename(2)).
    virtual int rename(const std::string &from, const std::string &to) const = 0;
    // Removes the directory entry (unlink(2)).
    virtual int remove(const std::string &path) const = 0;
};

// The real file system.
const FileAccess &realFileAccess();

// The message for an errno value ("No such file or directory"); safe from any thread.
std::string errorText(int error);

// `bytes` as an open file; its status is `status` with the size set to the bytes'.
std::unique_ptr<ReadableFile> memoryFile(std::string bytes, FileStatus status = {});

// Files held in memory by path, for tests. Symbolic links are only what link() declares:
// readLink answers them and linkStatus sees a link; realPath, open, stat and readText
// follow them, as the kernel does. Any operation can be made to fail on a path with fail().
// Not thread-safe.
class FakeFileAccess final : public FileAccess {
  public:
    struct Entry {
        std::string bytes;
        FileStatus status;  // size follows the bytes
    };

    OpenedFile open(const std::string &path) const override;
    StatusResult stat(const std::string &path) const override;
    TextResult readText(const std::string &path, std::size_t maxBytes) const override;
    TextResult readLink(const std::string &path) const override;
    // Follows links() made with link() (whole paths only) to a file that was put().
    TextResult realPath(const std::string &path) const override;
    int replace(const std::string &path, std::string_view contents,
                const FileStatus &like) const override;
    int createExclusive(const std::string &path, std::string_view contents,
                        std::uint32_t mode) const override;
    StatusResult linkStatus(const std::string &path) const override;
    int copyNew(const std::string &from, const std::string &to) const override;
    int changeOwner(const std::string &path, std::uint32_t uid, std::uint32_t gid) const override;
    int changeMode(const std::string &path, std::uint32_t mode) const override;
    int rename(const std::string &from, const std::string &to) const override;
    int remove(const std::string &path) const override;

    // Puts a file at `path` (replacing what was there) and returns it for adjusting.
    Entry &put(const std::string &path, std::string bytes, FileStatus status = {});
    // The file at `path`, or nullptr.
    const Entry *find(const std::string &path) const;
    // Makes readLink(path) answer `target`.
    void link(const std::string &path, std::string target) { links_[path] = std::move(target); }
    // Makes `operation` ("copyNew", "changeOwner", "changeMode", "rename", "remove") on
    // `path` (the destination of copyNew and rename) fail with `error`.
    void fail(const std::string &operation, const std::string &path, int error) {
        failures_[{operation, path}] = error;
    }

  private:
    // The file `path` names once links are followed, or nullptr.
    const Entry *followed(const std::string &path) const;
    int failure(const std::string &operation, const std::string &path) const;

    mutable std::map<std::string, Entry> files_;
    std::map<std::string, std::string> links_;
    std::map<std::pair<std::string, std::string>, int> failures_;
};

}  // namespace ostrel::platform
