#include "ostrel/platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "posix_io.h"

namespace ostrel::platform {

namespace posix {

int readRest(int fd, std::string &out) {
    char chunk[65536];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return errno;
        }
        if (n == 0) {
            return 0;
        }
        out.append(chunk, static_cast<std::size_t>(n));
    }
}

int readAll(const std::string &path, std::string &out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    int error = readRest(fd, out);
    ::close(fd);
    return error;
}

}  // namespace posix

namespace {

// write(2) until done; false on any error.
bool writeAll(int fd, const std::string &data) {
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

std::string parentOf(const std::string &path) {
    std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
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

    std::optional<std::string> readOwn(const std::string &path) const override {
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
            posix::readRest(fd, *contents);
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

    bool createDirectories(const std::string &dir) const override {
        struct stat st {};
        if (::stat(dir.c_str(), &st) == 0) {
            return S_ISDIR(st.st_mode);
        }
        std::string parent = parentOf(dir);
        if (parent != dir && !createDirectories(parent)) {
            return false;
        }
        return ::mkdir(dir.c_str(), 0755) == 0 || errno == EEXIST;
    }

    bool writeAtomic(const std::string &path, const std::string &contents) const override {
        std::string temp = path + ".XXXXXX";
        int fd = ::mkostemp(temp.data(), O_CLOEXEC);
        if (fd < 0) {
            return false;
        }
        bool ok = ::fchmod(fd, 0644) == 0 && writeAll(fd, contents) && ::fsync(fd) == 0;
        ok = ::close(fd) == 0 && ok;
        if (!ok || ::rename(temp.c_str(), path.c_str()) != 0) {
            ::unlink(temp.c_str());
            return false;
        }
        return true;
    }

    bool remove(const std::string &path) const override { return ::unlink(path.c_str()) == 0; }
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

std::optional<std::string> FakeFiles::readOwn(const std::string &path) const {
    if (foreign_.contains(path)) {
        return std::nullopt;
    }
    return read(path);
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

bool FakeFiles::createDirectories(const std::string &dir) const {
    if (readOnly_) {
        return false;
    }
    for (std::string d = dir; !d.empty() && d != "/"; d = parentOf(d)) {
        dirs_[d] = true;
    }
    return true;
}

bool FakeFiles::writeAtomic(const std::string &path, const std::string &contents) const {
    if (readOnly_) {
        return false;
    }
    files_[path] = contents;
    foreign_.erase(path);
    return true;
}

bool FakeFiles::remove(const std::string &path) const {
    if (readOnly_) {
        return false;
    }
    return files_.erase(path) > 0;
}

}  // namespace ostrel::platform
