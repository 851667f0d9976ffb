// Sysfs attribute files and the lock file that serialises their use, behind an interface:
// the real files, or (in tests) a fake that behaves like a kernel driver.
//
// Attributes are not ordinary files. Every read asks the device afresh, a write is a
// single store call that the driver may refuse, and permission is decided when the file is
// opened. The interface therefore reports errno values as they come instead of hiding
// them; the caller decides what each one means for its device.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace ostrel::platform {

// What reading an attribute gave.
struct AttributeRead {
    int error = 0;         // 0, or the errno of the failed open or read
    std::string contents;  // every byte read, when error is 0
};

// An exclusive lock, released when the object is destroyed.
class HeldLock {
  public:
    virtual ~HeldLock() = default;
};

struct LockResult {
    int error = 0;                   // 0, or the errno of the failed open or lock
    std::unique_ptr<HeldLock> lock;  // set exactly when error is 0
};

// Implementations must be safe to call from several threads at once.
class Sysfs {
  public:
    virtual ~Sysfs() = default;

    // Opens the attribute for reading and reads it to the end.
    virtual AttributeRead read(const std::string &path) = 0;

    // Opens the attribute for writing (never creating it) and stores `text` with one write
    // call. Returns 0 or the errno of the open or the write; a short write counts as EIO.
    virtual int write(const std::string &path, std::string_view text) = 0;

    // Takes an exclusive lock on the file at `path`, creating the file (mode 0600) and its
    // directory when missing, and waits while someone else holds it. Each call opens the
    // file afresh, so two holders in one process exclude each other just as two processes
    // do.
    virtual LockResult lockExclusive(const std::string &path) = 0;
};

// The real files: open, read, write and flock. Holds no state.
Sysfs &realSysfs();

}  // namespace ostrel::platform
