// Programs the end-to-end tests and benchmarks run beside themselves (the virtual Mac, the
// daemon), and waiting for what they do without sleeping: a wait watches a directory with
// inotify and looks again at each change, up to a generous bound.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ostrel/platform/unique_fd.h"

extern char **environ;

namespace ostrel::test {

// Calls `done` at the start and after each change in `directory` until it returns true;
// false when `limit` passes first.
inline bool waitInDirectory(const std::string &directory, const std::function<bool()> &done,
                            std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    platform::UniqueFd watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ::inotify_add_watch(watch.get(), directory.c_str(),
                        IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE);
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd changed{watch.get(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&changed, 1, static_cast<int>(left.count())) <= 0) {
            return done();
        }
        char events[4096];
        while (::read(watch.get(), events, sizeof events) > 0) {
        }
    }
    return true;
}

// The command line of env(1) running `program` with `args` and `env` added to the
// environment; env execs the program in its own place, so the pid is the program's.
inline std::vector<std::string> withEnvironment(const std::map<std::string, std::string> &env,
                                                const std::string &program,
                                                const std::vector<std::string> &args) {
    std::vector<std::string> argv = {"/usr/bin/env"};
    for (const auto &[name, value] : env) {
        argv.push_back(name + "=" + value);
    }
    argv.push_back(program);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

// A child with `env` added to this process's environment and its standard output and
// error appended to `output`; killed and reaped with the object unless waited for.
class BackgroundProcess {
  public:
    BackgroundProcess(const std::string &program, const std::vector<std::string> &args,
                      const std::map<std::string, std::string> &env, const std::string &output) {
        std::vector<std::string> argv = withEnvironment(env, program, args);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        std::vector<char *> pointers;
        for (std::string &arg : argv) {
            pointers.push_back(arg.data());
        }
        pointers.push_back(nullptr);
        int spawned =
            ::posix_spawn(&pid_, argv[0].c_str(), &actions, nullptr, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            throw std::runtime_error("cannot start " + program);
        }
        pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    }
    ~BackgroundProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    BackgroundProcess(const BackgroundProcess &) = delete;
    BackgroundProcess &operator=(const BackgroundProcess &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const { ::kill(pid_, number); }
    bool running() const { return pid_ > 0 && !ended(0); }

    // The exit status, or -signal when a signal ended it; nothing while it still runs
    // after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(30)) {
        if (pid_ <= 0 || !ended(static_cast<int>(limit.count()))) {
            return std::nullopt;
        }
        int status = 0;
        ::waitpid(std::exchange(pid_, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    bool ended(int milliseconds) const {
        pollfd exited{pidfd_.get(), POLLIN, 0};
        return ::poll(&exited, 1, milliseconds) == 1;
    }

    pid_t pid_ = 0;
    platform::UniqueFd pidfd_;
};

}  // namespace ostrel::test
