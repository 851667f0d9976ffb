// Notices when the daemon's own executable is replaced, so that the daemon stops and
// systemd starts the new one.
//
// A running executable cannot be opened for writing (ETXTBSY), so on Linux it is replaced
// by a new file renamed over its path (package managers, self-update), deleted, or renamed
// away. inotify watches the file (IN_ATTRIB when its link count drops, IN_MOVE_SELF,
// IN_DELETE_SELF, IN_MODIFY) and its directory for the file's name (IN_CREATE,
// IN_MOVED_TO, IN_DELETE, IN_MOVED_FROM). An event only prompts a look: the executable
// counts as replaced when its size changed (a write), when it has no link left, or when
// its path no longer names the same file. So a chmod or a touch of the file (which Linux
// reports as IN_MODIFY), or changes to its neighbours, do not stop the daemon.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace asio {
class io_context;
}

namespace ostrel::helper {

class ExecutableWatch {
  public:
    // Watches `path` on `io`; `replaced` runs once, on the thread running `io`, at the
    // first sign of a replacement. Nothing (and no message) when the file or its directory
    // cannot be watched: the daemon then runs without the watch.
    static std::unique_ptr<ExecutableWatch> start(asio::io_context &io, const std::string &path,
                                                  std::function<void()> replaced);
    ~ExecutableWatch();
    ExecutableWatch(const ExecutableWatch &) = delete;
    ExecutableWatch &operator=(const ExecutableWatch &) = delete;

  private:
    struct Impl;
    explicit ExecutableWatch(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> impl_;
};

}  // namespace ostrel::helper
