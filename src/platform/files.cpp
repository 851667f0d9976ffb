#include "ostrel/platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>

#include "posix_io.h"

namespace ostrel::platform {

// The one place where this module turns errno into an error.
FileResult FileResult::failure(std::string operation, std::string path, int errnoValue) {
    return {std::error_code(errnoValue, std::generic_category()), std::move(operation),
            std::move(path)};
}

std::string FileResult::message() const {
    return ok() ? "" : "cannot " + operation + " " + path + ": " + error.message();
}

void FileResult::check() const {
    if (!ok()) {
        throw std::system_error(error, "cannot " + operation + " " + path);
    }
}

std::string parentDirectory(const std::string &path) {
    std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

namespace posix {

int readRest(int fd, std::string &out, std::size_t limit) {
    char chunk[65536];
    std::size_t total = 0;
    for (;;) {
        // One byte past the limit is enough to know the file is too long.
        std::size_t left = limit - total;
        std::size_t room = left < sizeof chunk ? left + 1 : sizeof chunk;
        ssize_t n = ::read(fd, chunk, room);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return errno;
        }
        if (n == 0) {
            return 0;
        }
        if (static_cast<std::size_t>(n) > left) {
            return EFBIG;
        }
        out.append(chunk, static_cast<std::size_t>(n));
        total += static_cast<std::size_t>(n);
    }
}

int readAll(const std::string &path, std::string &out, std::size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    int error = readRest(fd, out, limit);
    ::close(fd);
    return error;
}

int writeAll(int fd, std::string_view data) {
    return transferAll(data.size(), [&](std::size_t done) {
        return ::write(fd, data.data() + done, data.size() - done);
    });
}

}  // namespace posix

namespace {

// Flushes a directory's entries (a rename into it) to the disk; 0 or the errno.
int syncDirectory(const std::string &dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    int error = ::fsync(fd) == 0 ? 0 : errno;
    ::close(fd);
    return error;
}

class RealFiles final : public Files {
  public:
    std::optional<std::string> read(const std::string &path) const override {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return std::nullopt;
        }
        std::string contents;
        posix::readRest(fd, contents);  // a failing read ends the file where it failed
        ::close(fd);
        return contents;
    }

    std::optional<std::string> readAtMost(const std::string &path,
                                          std::size_t maxBytes) const override {
        std::string contents;
        if (posix::readAll(path, contents, maxBytes) != 0) {
            return std::nullopt;
        }
        return contents;
    }

    std::optional<std::string> readOwn(const std::string &path,
                                       std::size_t maxBytes) const override {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0) {
            return std::nullopt;
        }
        struct stat st {};
        std::optional<std::string> contents;
        if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
            (st.st_uid == ::geteuid() || st.st_uid == 0) &&
            (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
            contents.emplace();
            if (posix::readRest(fd, *contents, maxBytes) != 0) {
                contents.reset();
            }
        }
        ::close(fd);
        return contents;
    }

    std::optional<std::string> readTail(const std::string &path,
                                        std::size_t maxBytes) const override {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) {
            return std::nullopt;
        }
        std::optional<std::string> contents;
        off_t end = ::lseek(fd, 0, SEEK_END);
        off_t start = end - static_cast<off_t>(std::min<std::size_t>(maxBytes, end < 0 ? 0 : end));
        if (end >= 0 && ::lseek(fd, start, SEEK_SET) == start) {
            contents.emplace();
            // A log that grew meanwhile gives the bytes that were there when we looked.
            int error = posix::readRest(fd, *contents, maxBytes);
            if (error != 0 && error != EFBIG) {
                contents.reset();
            }
        }
        ::close(fd);
        return contents;
    }

    std::optional<std::vector<std::string>> list(const std::string &dir) const override {
        std::unique_ptr<DIR, int (*)(DIR *)> handle(::opendir(dir.c_str()), ::closedir);
        if (!handle) {
            return std::nullopt;
        }
        std::vector<std::string> names;
        while (dirent *entry = ::readdir(handle.get())) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(std::move(name));
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    FileResult createDirectories(const std::string &dir, unsigned mode) const override {
        struct stat st {};
        if (::stat(dir.c_str(), &st) == 0) {
            return S_ISDIR(st.st_mode) ? FileResult{}
                                       : FileResult::failure("create directory", dir, ENOTDIR);
        }
        std::string parent = parentDirectory(dir);
        if (parent != dir) {
            FileResult made = createDirectories(parent, mode);
            if (!made.ok()) {
                return made;
            }
        }
        if (::mkdir(dir.c_str(), mode) != 0) {
            return errno == EEXIST ? FileResult{}
                                   : FileResult::failure("create directory", dir, errno);
        }
        // mkdir's mode passed through the umask; the caller asked for exactly `mode`.
        ::chmod(dir.c_str(), mode);
        return {};
    }

    FileResult writeAtomic(const std::string &path, const std::string &contents,
                           unsigned mode) const override {
        std::string temp = path + ".XXXXXX";
        int fd = ::mkostemp(temp.data(), O_CLOEXEC);
        if (fd < 0) {
            return FileResult::failure("write", path, errno);
        }
        ::fchmod(fd, mode);
        int error = posix::writeAll(fd, contents);
        if (error == 0 && ::fsync(fd) != 0) {
            error = errno;
        }
        if (::close(fd) != 0 && error == 0) {
            error = errno;
        }
        if (error == 0 && ::rename(temp.c_str(), path.c_str()) != 0) {
            error = errno;
        }
        if (error != 0) {
            ::unlink(temp.c_str());
            return FileResult::failure("write", path, error);
        }
        // Without this the rename may still be lost in a power cut, leaving the old file.
        error = syncDirectory(parentDirectory(path));
        return error == 0 ? FileResult{} : FileResult::failure("write", path, error);
    }

    bool remove(const std::string &path) const override { return ::unlink(path.c_str()) == 0; }

    FileKind kind(const std::string &path) const override {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) {
            return FileKind::none;
        }
        return S_ISREG(st.st_mode)    ? FileKind::regular
               : S_ISDIR(st.st_mode)  ? FileKind::directory
               : S_ISSOCK(st.st_mode) ? FileKind::socket
                                      : FileKind::other;
    }

    FileResult setMode(const std::string &path, unsigned mode) const override {
        return ::chmod(path.c_str(), static_cast<mode_t>(mode)) == 0
                   ? FileResult{}
                   : FileResult::failure("set the mode of", path, errno);
    }
};

}  // namespace

const Files &realFiles() {
    static const RealFiles files;
    return files;
}

std::optional<std::string> FakeFiles::read(const std::string &path) const {
    auto it = files_.find(path);
    if (it == files_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::optional<std::string> FakeFiles::readOwn(const std::string &path, std::size_t maxBytes) const {
    if (foreign_.contains(path)) {
        return std::nullopt;
    }
    return readAtMost(path, maxBytes);
}

std::optional<std::vector<std::string>> FakeFiles::list(const std::string &dir) const {
    std::string prefix = dir + "/";
    std::vector<std::string> names;
    auto collect = [&](const std::string &path) {
        if (path.starts_with(prefix)) {
            std::string rest = path.substr(prefix.size());
            names.push_back(rest.substr(0, rest.find('/')));
        }
    };
    for (const auto &[path, contents] : files_) {
        collect(path);
    }
    for (const auto &[path, exists] : dirs_) {
        collect(path);
    }
    if (names.empty() && !dirs_.contains(dir)) {
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::optional<std::string> FakeFiles::readAtMost(const std::string &path,
                                                 std::size_t maxBytes) const {
    std::optional<std::string> contents = read(path);
    return contents && contents->size() <= maxBytes ? contents : std::nullopt;
}

std::optional<std::string> FakeFiles::readTail(const std::string &path,
                                               std::size_t maxBytes) const {
    std::optional<std::string> contents = read(path);
    if (contents && contents->size() > maxBytes) {
        contents->erase(0, contents->size() - maxBytes);
    }
    return contents;
}

FileResult FakeFiles::createDirectories(const std::string &dir, unsigned mode) const {
    if (readOnly_) {
        return FileResult::failure("create directory", dir, EROFS);
    }
    for (std::string d = dir; !d.empty() && d != "/" && d != "."; d = parentDirectory(d)) {
        dirs_.try_emplace(d, mode);
    }
    return {};
}

FileResult FakeFiles::writeAtomic(const std::string &path, const std::string &contents,
                                  unsigned mode) const {
    if (readOnly_) {
        return FileResult::failure("write", path, EROFS);
    }
    files_[path] = contents;
    foreign_.erase(path);
    modes_[path] = mode;
    return {};
}

bool FakeFiles::remove(const std::string &path) const {
    if (readOnly_) {
        return false;
    }
    return files_.erase(path) > 0;
}

FileKind FakeFiles::kind(const std::string &path) const {
    if (files_.contains(path)) {
        return FileKind::regular;
    }
    return dirs_.contains(path) || list(path) ? FileKind::directory : FileKind::none;
}

FileResult FakeFiles::setMode(const std::string &path, unsigned mode) const {
    if (readOnly_) {
        return FileResult::failure("set the mode of", path, EROFS);
    }
    if (kind(path) == FileKind::none) {
        return FileResult::failure("set the mode of", path, ENOENT);
    }
    modes_[path] = mode;
    return {};
}

std::optional<unsigned> FakeFiles::mode(const std::string &path) const {
    if (auto it = modes_.find(path); it != modes_.end()) {
        return it->second;
    }
    if (auto it = dirs_.find(path); it != dirs_.end()) {
        return it->second;
    }
    return std::nullopt;
}

}  // namespace ostrel::platform
