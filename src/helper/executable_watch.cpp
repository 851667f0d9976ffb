#include "executable_watch.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include "ostrel/platform/files.h"
#include "ostrel/platform/unique_fd.h"

namespace ostrel::helper {

namespace {

constexpr std::uint32_t kFileEvents = IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF | IN_MODIFY;
constexpr std::uint32_t kDirectoryEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;

}  // namespace

struct ExecutableWatch::Impl : std::enable_shared_from_this<Impl> {
    Impl(asio::io_context &io, std::string path, std::function<void()> replaced)
        : path(std::move(path)), replaced(std::move(replaced)), descriptor(io) {}

    // Whether the file watched was written to, or is no longer what the path names. A
    // write shows as a change of size: a touch also raises IN_MODIFY (Linux reports a new
    // modification time as one) and must not count, and a running executable cannot be
    // opened for writing anyway.
    bool replacedNow() const {
        struct stat held {
        }, named{};
        if (::fstat(file.get(), &held) != 0 || held.st_nlink == 0 || held.st_size != size) {
            return true;
        }
        return ::stat(path.c_str(), &named) != 0 || named.st_dev != held.st_dev ||
               named.st_ino != held.st_ino;
    }

    // Empties inotify's queue. The events only prompt a look (and the queue may have
    // overflowed): replacedNow() decides.
    void drain() {
        std::array<char, 4096> buffer;
        while (::read(descriptor.native_handle(), buffer.data(), buffer.size()) > 0) {
        }
    }

    void wait() {
        descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                              [self = shared_from_this()](const std::error_code &error) {
                                  if (error) {
                                      return;  // the watch was destroyed
                                  }
                                  self->drain();
                                  if (self->replacedNow()) {
                                      self->replaced();
                                      return;
                                  }
                                  self->wait();
                              });
    }

    std::string path;
    std::function<void()> replaced;
    asio::posix::stream_descriptor descriptor;  // the inotify instance
    platform::UniqueFd file;                    // O_PATH: the executable as it was
    off_t size = 0;                             // and its size then
};

std::unique_ptr<ExecutableWatch> ExecutableWatch::start(asio::io_context &io,
                                                        const std::string &path,
                                                        std::function<void()> replaced) {
    auto impl = std::make_shared<Impl>(io, path, std::move(replaced));
    platform::UniqueFd inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    impl->file.reset(::open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!inotify.valid() || !impl->file.valid()) {
        return nullptr;
    }
    struct stat st {};
    if (::fstat(impl->file.get(), &st) != 0) {
        return nullptr;
    }
    impl->size = st.st_size;
    std::string directory = platform::parentDirectory(path);
    if (::inotify_add_watch(inotify.get(), path.c_str(), kFileEvents) < 0 ||
        ::inotify_add_watch(inotify.get(), directory.c_str(), kDirectoryEvents | IN_ONLYDIR) < 0) {
        return nullptr;
    }
    impl->descriptor.assign(inotify.release());
    impl->wait();
    return std::unique_ptr<ExecutableWatch>(new ExecutableWatch(std::move(impl)));
}

ExecutableWatch::ExecutableWatch(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

ExecutableWatch::~ExecutableWatch() {
    std::error_code ignored;
    impl_->descriptor.close(ignored);  // ends the pending wait with an error
}

}  // namespace ostrel::helper
