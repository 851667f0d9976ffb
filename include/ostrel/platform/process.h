// Running other programs, behind an interface: the real posix_spawn, or a fake that
// records what was asked and answers from a script.
//
// Used where the daemon asks a candidate executable for its version and where the
// installer runs its privileged script. A child starts with default signal dispositions
// and an empty signal mask, whatever the parent ignores or blocks, so a daemon that
// ignores SIGTERM does not hand that on.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ostrel/platform/clock.h"

namespace ostrel::platform {

// Where a child's standard stream goes.
enum class Stream {
    inherit,  // the parent's
    null,     // /dev/null
    capture,  // a pipe the parent reads (output streams only)
};

struct ProcessLaunch {
    std::string program;            // run as it is: an absolute path, no PATH search
    std::vector<std::string> args;  // argv[1..]; argv[0] is `program`
    Stream input = Stream::null;
    Stream output = Stream::capture;
    Stream error = Stream::null;
    // Killed with SIGKILL once this has passed; nothing means no limit.
    std::optional<std::chrono::milliseconds> timeout;
    // Bytes kept of each captured stream; more is read and dropped, so a chatty child
    // never blocks on a full pipe.
    std::size_t captureLimit = 1 << 20;

    bool operator==(const ProcessLaunch &) const = default;
};

struct ProcessResult {
    int startError = 0;           // the errno when the program could not be started
    bool timedOut = false;        // the limit passed and the child was killed
    std::optional<int> exitCode;  // when the child exited by itself
    std::optional<int> signal;    // when a signal ended it (SIGKILL after a time-out)
    std::string output;           // captured standard output
    std::string error;            // captured standard error

    bool started() const { return startError == 0; }
    bool succeeded() const { return exitCode == 0; }
};

class Processes {
  public:
    virtual ~Processes() = default;
    // Runs the program to its end (or its limit) and reaps it. Blocks the calling thread;
    // safe from any thread.
    virtual ProcessResult run(const ProcessLaunch &launch) = 0;
};

// Who the running process is, as far as starting privileged work goes.
struct ProcessIdentity {
    unsigned userId = 0;  // the effective user id: 0 runs as root
    int processId = 0;
};

// This process's identity (geteuid, getpid). Never fails.
ProcessIdentity currentProcess();

// The real one; `clock` measures the time limits and must outlive it.
std::unique_ptr<Processes> realProcesses(Clock &clock);

// Records every launch it is given and answers with `respond` (by default: exit 0, no
// output). Not thread-safe.
class FakeProcesses final : public Processes {
  public:
    ProcessResult run(const ProcessLaunch &launch) override {
        runs.push_back(launch);
        if (respond) {
            return respond(launch);
        }
        ProcessResult done;
        done.exitCode = 0;
        return done;
    }

    std::vector<ProcessLaunch> runs;
    std::function<ProcessResult(const ProcessLaunch &)> respond;
};

}  // namespace ostrel::platform
