#include "ostrel/platform/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "ostrel/platform/unique_fd.h"
#include "posix_io.h"

namespace ostrel::platform {

namespace {

FileStatus statusOf(const struct stat &st) {
    auto ns = [](const timespec &t) {
        return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
    };
    return {static_cast<std::uint64_t>(st.st_dev),
            static_cast<std::uint64_t>(st.st_ino),
            static_cast<std::uint64_t>(st.st_size),
            ns(st.st_mtim),
            ns(st.st_ctim),
            static_cast<std::uint32_t>(st.st_mode),
            static_cast<std::uint32_t>(st.st_uid),
            static_cast<std::uint32_t>(st.st_gid)};
}

class DescriptorFile final : public ReadableFile {
  public:
    DescriptorFile(UniqueFd fd, FileStatus status) : fd_(std::move(fd)), status_(status) {}

    const FileStatus &status() const override { return status_; }

    int readAt(std::uint64_t offset, std::span<char> out) const override {
        return posix::transferAll(out.size(), [&](std::size_t done) {
            return ::pread(fd_.get(), out.data() + done, out.size() - done,
                           static_cast<off_t>(offset + done));
        });
    }

  private:
    UniqueFd fd_;
    FileStatus status_;
};

class MemoryFile final : public ReadableFile {
  public:
    MemoryFile(std::string bytes, FileStatus status) : bytes_(std::move(bytes)), status_(status) {
        status_.size = bytes_.size();
    }

    const FileStatus &status() const override { return status_; }

    int readAt(std::uint64_t offset, std::span<char> out) const override {
        if (offset > bytes_.size() || out.size() > bytes_.size() - offset) {
            return EIO;
        }
        std::memcpy(out.data(), bytes_.data() + offset, out.size());
        return 0;
    }

  private:
    std::string bytes_;
    FileStatus status_;
};

// Writes `contents` to the new file `fd` at `path` with the given bits and owner, and
// flushes it; on failure removes the file. Returns 0 or the errno.
int finishNewFile(UniqueFd fd, const std::string &path, std::string_view contents,
                  const FileStatus &like, bool keepOwner) {
    int error = posix::writeAll(fd.get(), contents);
    struct stat st {};
    if (error == 0 && keepOwner && ::fstat(fd.get(), &st) == 0 &&
        (st.st_uid != like.uid || st.st_gid != like.gid) &&
        ::fchown(fd.get(), like.uid, like.gid) != 0) {
        error = errno;
    }
    // After fchown, which clears set-id bits, so that they survive.
    if (error == 0 && ::fchmod(fd.get(), like.mode & 07777) != 0) {
        error = errno;
    }
    if (error == 0 && ::fsync(fd.get()) != 0) {
        error = errno;
    }
    if (::close(fd.release()) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        ::unlink(path.c_str());
    }
    return error;
}

class RealFileAccess final : public FileAccess {
  public:
    OpenedFile open(const std::string &path) const override {
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        struct stat st {};
        if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
            return {errno, nullptr};
        }
        return {0, std::make_unique<DescriptorFile>(std::move(fd), statusOf(st))};
    }

    StatusResult stat(const std::string &path) const override {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) {
            return {errno, {}};
        }
        return {0, statusOf(st)};
    }

    TextResult readText(const std::string &path, std::size_t maxBytes) const override {
        TextResult result;
        result.error = posix::readAll(path, result.text, maxBytes);
        if (result.error != 0) {
            result.text.clear();
        }
        return result;
    }

    TextResult readLink(const std::string &path) const override {
        std::string target(256, '\0');
        for (;;) {
            ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
            if (n < 0) {
                return {errno, {}};
            }
            if (static_cast<std::size_t>(n) < target.size()) {
                target.resize(static_cast<std::size_t>(n));
                return {0, std::move(target)};
            }
            if (target.size() >= 65536) {
                return {ENAMETOOLONG, {}};
            }
            target.resize(target.size() * 2);
        }
    }

    TextResult realPath(const std::string &path) const override {
        char *resolved = ::realpath(path.c_str(), nullptr);
        if (resolved == nullptr) {
            return {errno, {}};
        }
        TextResult result{0, resolved};
        std::free(resolved);
        return result;
    }

    int replace(const std::string &path, std::string_view contents,
                const FileStatus &like) const override {
        std::string temp = path + ".XXXXXX";
        UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
        if (!fd.valid()) {
            return errno;
        }
        int error = finishNewFile(std::move(fd), temp, contents, like, true);
        if (error == 0 && ::rename(temp.c_str(), path.c_str()) != 0) {
            error = errno;
            ::unlink(temp.c_str());
        }
        return error;
    }

    int createExclusive(const std::string &path, std::string_view contents,
                        std::uint32_t mode) const override {
        UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           mode & 07777));
        if (!fd.valid()) {
            return errno;
        }
        FileStatus like;
        like.mode = mode;
        return finishNewFile(std::move(fd), path, contents, like, false);
    }

    StatusResult linkStatus(const std::string &path) const override {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) {
            return {errno, {}};
        }
        return {0, statusOf(st)};
    }

    int copyNew(const std::string &from, const std::string &to) const override {
        UniqueFd in(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat st {};
        if (!in.valid() || ::fstat(in.get(), &st) != 0) {
            return errno;
        }
        if (!S_ISREG(st.st_mode)) {
            return EINVAL;
        }
        UniqueFd out(
            ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!out.valid()) {
            return errno;
        }
        int error = 0;
        char chunk[65536];
        for (;;) {
            ssize_t n = ::read(in.get(), chunk, sizeof chunk);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                error = n < 0 ? errno : 0;
                break;
            }
            if ((error = posix::writeAll(out.get(), {chunk, static_cast<std::size_t>(n)}))) {
                break;
            }
        }
        if (error == 0 && ::fsync(out.get()) != 0) {
            error = errno;
        }
        if (::close(out.release()) != 0 && error == 0) {
            error = errno;
        }
        if (error != 0) {
            ::unlink(to.c_str());
        }
        return error;
    }

    int changeOwner(const std::string &path, std::uint32_t uid, std::uint32_t gid) const override {
        return ::fchownat(AT_FDCWD, path.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
    }

    int changeMode(const std::string &path, std::uint32_t mode) const override {
        // glibc refuses a link here (EOPNOTSUPP) rather than changing its target.
        return ::fchmodat(AT_FDCWD, path.c_str(), mode & 07777, AT_SYMLINK_NOFOLLOW) == 0 ? 0
                                                                                          : errno;
    }

    int rename(const std::string &from, const std::string &to) const override {
        return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
    }

    int remove(const std::string &path) const override {
        return ::unlink(path.c_str()) == 0 ? 0 : errno;
    }
};

}  // namespace

const FileAccess &realFileAccess() {
    static const RealFileAccess access;
    return access;
}

std::string errorText(int error) {
    return std::generic_category().message(error);
}

std::unique_ptr<ReadableFile> memoryFile(std::string bytes, FileStatus status) {
    return std::make_unique<MemoryFile>(std::move(bytes), status);
}

FakeFileAccess::Entry &FakeFileAccess::put(const std::string &path, std::string bytes,
                                           FileStatus status) {
    status.size = bytes.size();
    return files_[path] = Entry{std::move(bytes), status};
}

const FakeFileAccess::Entry *FakeFileAccess::find(const std::string &path) const {
    auto it = files_.find(path);
    return it == files_.end() ? nullptr : &it->second;
}

const FakeFileAccess::Entry *FakeFileAccess::followed(const std::string &path) const {
    TextResult real = realPath(path);
    return real.error == 0 ? find(real.text) : nullptr;
}

OpenedFile FakeFileAccess::open(const std::string &path) const {
    const Entry *entry = followed(path);
    if (entry == nullptr) {
        return {ENOENT, nullptr};
    }
    return {0, memoryFile(entry->bytes, entry->status)};
}

StatusResult FakeFileAccess::stat(const std::string &path) const {
    const Entry *entry = followed(path);
    if (entry == nullptr) {
        return {ENOENT, {}};
    }
    return {0, entry->status};
}

TextResult FakeFileAccess::readText(const std::string &path, std::size_t maxBytes) const {
    const Entry *entry = followed(path);
    if (entry == nullptr) {
        return {ENOENT, {}};
    }
    if (entry->bytes.size() > maxBytes) {
        return {EFBIG, {}};
    }
    return {0, entry->bytes};
}

TextResult FakeFileAccess::readLink(const std::string &path) const {
    auto it = links_.find(path);
    if (it == links_.end()) {
        return {EINVAL, {}};
    }
    return {0, it->second};
}

TextResult FakeFileAccess::realPath(const std::string &path) const {
    std::string at = path;
    for (int hops = 0; hops < 40; ++hops) {  // as many as the kernel follows
        if (files_.contains(at)) {
            return {0, at};
        }
        auto it = links_.find(at);
        if (it == links_.end()) {
            return {ENOENT, {}};
        }
        at = it->second;
    }
    return {ELOOP, {}};
}

int FakeFileAccess::replace(const std::string &path, std::string_view contents,
                            const FileStatus &like) const {
    FileStatus status = like;
    status.size = contents.size();
    ++status.changedNs;
    files_[path] = Entry{std::string(contents), status};
    return 0;
}

int FakeFileAccess::failure(const std::string &operation, const std::string &path) const {
    auto it = failures_.find({operation, path});
    return it == failures_.end() ? 0 : it->second;
}

StatusResult FakeFileAccess::linkStatus(const std::string &path) const {
    if (links_.contains(path)) {
        FileStatus status;
        status.mode = 0120777;
        return {0, status};
    }
    return stat(path);
}

int FakeFileAccess::copyNew(const std::string &from, const std::string &to) const {
    const Entry *source = find(from);
    if (int error = failure("copyNew", to); error != 0 || source == nullptr) {
        return source == nullptr ? ENOENT : error;
    }
    if (files_.contains(to) || links_.contains(to)) {
        return EEXIST;
    }
    FileStatus status;
    status.mode = 0100600;
    status.size = source->bytes.size();
    files_[to] = Entry{source->bytes, status};
    return 0;
}

int FakeFileAccess::changeOwner(const std::string &path, std::uint32_t uid,
                                std::uint32_t gid) const {
    auto it = files_.find(path);
    if (int error = failure("changeOwner", path); error != 0 || it == files_.end()) {
        return it == files_.end() ? ENOENT : error;
    }
    it->second.status.uid = uid;
    it->second.status.gid = gid;
    return 0;
}

int FakeFileAccess::changeMode(const std::string &path, std::uint32_t mode) const {
    auto it = files_.find(path);
    if (int error = failure("changeMode", path); error != 0 || it == files_.end()) {
        return it == files_.end() ? ENOENT : error;
    }
    it->second.status.mode = (it->second.status.mode & ~07777u) | (mode & 07777);
    return 0;
}

int FakeFileAccess::rename(const std::string &from, const std::string &to) const {
    auto it = files_.find(from);
    if (int error = failure("rename", to); error != 0 || it == files_.end()) {
        return it == files_.end() ? ENOENT : error;
    }
    Entry moved = std::move(it->second);
    files_.erase(it);
    files_[to] = std::move(moved);
    return 0;
}

int FakeFileAccess::remove(const std::string &path) const {
    if (int error = failure("remove", path)) {
        return error;
    }
    return files_.erase(path) == 1 ? 0 : ENOENT;
}

int FakeFileAccess::createExclusive(const std::string &path, std::string_view contents,
                                    std::uint32_t mode) const {
    if (files_.contains(path)) {
        return EEXIST;
    }
    FileStatus status;
    status.mode = 0100000 | (mode & 07777);
    status.size = contents.size();
    files_[path] = Entry{std::string(contents), status};
    return 0;
}

}  // namespace ostrel::platform
