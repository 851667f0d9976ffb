#include "ostrel/platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "ostrel/platform/unique_fd.h"

extern char **environ;

namespace ostrel::platform {

namespace {

// How often the child's exit is looked for when the kernel cannot say it (no pidfd).
constexpr std::chrono::milliseconds kPollSlice{50};

// One captured stream: the parent's end of its pipe and what was kept of it.
struct Capture {
    UniqueFd fd;
    std::string *into = nullptr;
    std::size_t limit = 0;

    // Reads what is there now; false once the writer has closed its end (or on error).
    bool drain() {
        std::array<char, 16384> chunk{};
        for (;;) {
            ssize_t n = ::read(fd.get(), chunk.data(), chunk.size());
            if (n > 0) {
                std::size_t keep = std::min(static_cast<std::size_t>(n), limit - into->size());
                into->append(chunk.data(), keep);
                continue;
            }
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 && errno == EAGAIN) {
                return true;
            }
            fd.reset();
            return false;
        }
    }
};

class SpawnActions {
  public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions &) = delete;
    SpawnActions &operator=(const SpawnActions &) = delete;

    // Points the child's descriptor `target` where `how` says; a capture gets a pipe whose
    // reading end is returned (non-blocking, closed on exec).
    int route(int target, Stream how, int &error) {
        if (how == Stream::null) {
            int flags = target == STDIN_FILENO ? O_RDONLY : O_WRONLY;
            posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", flags, 0);
        } else if (how == Stream::capture && target != STDIN_FILENO) {
            int ends[2];
            if (::pipe2(ends, O_CLOEXEC) != 0) {
                error = errno;
                return -1;
            }
            ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
            writers_.emplace_back(ends[1]);
            posix_spawn_file_actions_adddup2(&actions_, ends[1], target);
            return ends[0];
        }
        return -1;
    }

    const posix_spawn_file_actions_t *get() const { return &actions_; }
    // The child's ends, which the parent closes once the child has started.
    void closeWriters() { writers_.clear(); }

  private:
    posix_spawn_file_actions_t actions_;
    std::vector<UniqueFd> writers_;
};

class RealProcesses final : public Processes {
  public:
    explicit RealProcesses(Clock &clock) : clock_(clock) {}

    ProcessResult run(const ProcessLaunch &launch) override {
        ProcessResult result;
        SpawnActions actions;
        std::array<Capture, 2> captures;
        captures[0] = {UniqueFd(actions.route(STDOUT_FILENO, launch.output, result.startError)),
                       &result.output, launch.captureLimit};
        captures[1] = {UniqueFd(actions.route(STDERR_FILENO, launch.error, result.startError)),
                       &result.error, launch.captureLimit};
        actions.route(STDIN_FILENO, launch.input, result.startError);
        if (result.startError != 0) {
            return result;
        }

        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t all, none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(launch.program.c_str()));
        for (const std::string &arg : launch.args) {
            argv.push_back(const_cast<char *>(arg.c_str()));
        }
        argv.push_back(nullptr);
        pid_t pid = 0;
        int spawned = ::posix_spawn(&pid, launch.program.c_str(), actions.get(), &attributes,
                                    argv.data(), environ);
        posix_spawnattr_destroy(&attributes);
        actions.closeWriters();
        if (spawned != 0) {
            result.startError = spawned;
            return result;
        }
        wait(pid, launch, captures, result);
        return result;
    }

  private:
    // Reads the captures while the child runs, kills it at its limit, and reaps it. Stops
    // reading once the child has exited: a grandchild that keeps a pipe open must not keep
    // the caller waiting.
    void wait(pid_t pid, const ProcessLaunch &launch, std::array<Capture, 2> &captures,
              ProcessResult &result) {
        UniqueFd exited(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
        auto deadline =
            launch.timeout ? std::optional(clock_.monotonic() + *launch.timeout) : std::nullopt;
        int status = 0;
        for (;;) {
            pid_t done = ::waitpid(pid, &status, WNOHANG);
            if (done == pid || (done < 0 && errno != EINTR)) {
                break;
            }
            // With a pidfd the child's exit wakes the poll; without one, a short slice does.
            std::chrono::milliseconds slice =
                exited.valid() ? std::chrono::milliseconds(-1) : kPollSlice;
            if (deadline) {
                auto left =
                    std::chrono::ceil<std::chrono::milliseconds>(*deadline - clock_.monotonic());
                if (left.count() <= 0) {
                    ::kill(pid, SIGKILL);
                    result.timedOut = true;
                    ::waitpid(pid, &status, 0);
                    break;
                }
                // Capped so that a far deadline still fits poll's int of milliseconds.
                left = std::min(left, std::chrono::milliseconds(60000));
                slice = slice.count() < 0 ? left : std::min(slice, left);
            }
            std::array<pollfd, 3> fds{};
            nfds_t count = 0;
            for (Capture &capture : captures) {
                if (capture.fd.valid()) {
                    fds[count++] = {capture.fd.get(), POLLIN, 0};
                }
            }
            if (exited.valid()) {
                fds[count++] = {exited.get(), POLLIN, 0};
            }
            ::poll(fds.data(), count, static_cast<int>(slice.count()));
            for (Capture &capture : captures) {
                if (capture.fd.valid()) {
                    capture.drain();
                }
            }
        }
        for (Capture &capture : captures) {
            if (capture.fd.valid()) {
                capture.drain();
            }
        }
        if (WIFEXITED(status)) {
            result.exitCode = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status)) {
            result.signal = WTERMSIG(status);
        }
    }

    Clock &clock_;
};

}  // namespace

ProcessIdentity currentProcess() {
    return {static_cast<unsigned>(::geteuid()), static_cast<int>(::getpid())};
}

std::unique_ptr<Processes> realProcesses(Clock &clock) {
    return std::make_unique<RealProcesses>(clock);
}

}  // namespace ostrel::platform
