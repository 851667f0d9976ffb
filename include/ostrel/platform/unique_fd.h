// Ownership of one file descriptor: closed when the owner goes away, movable, not copyable.
#pragma once

#include <unistd.h>

#include <utility>

namespace ostrel::platform {

class UniqueFd {
  public:
    UniqueFd() = default;
    // Takes ownership of `fd` (-1 for none).
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd_, -1));
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives up ownership: the caller closes the descriptor returned.
    int release() { return std::exchange(fd_, -1); }
    // Closes the descriptor held so far and takes `fd` instead.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

}  // namespace ostrel::platform
