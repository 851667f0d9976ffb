// The `ostrel` command-line program, as a library so that tests can run it in-process.
#pragma once

#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>

#include "ostrel/helper_client.h"
#include "ostrel/helper_installer.h"
#include "ostrel/smc.h"
#include "ostrel/system_access.h"

namespace ostrel::cli {

// How `watch` waits between frames: for the interval, or until a stop signal arrives.
class Pause {
  public:
    virtual ~Pause() = default;
    // Waits up to `duration`; returns the signal (SIGINT, SIGTERM) that ended the wait
    // early, or 0 when the time passed. A signal that came while nobody waited is reported
    // by the next wait at once. Called from one thread.
    virtual int wait(std::chrono::nanoseconds duration) = 0;
};

// The real pause: catches SIGINT and SIGTERM from its creation to its destruction (so a
// Ctrl-C between two waits is not lost) and waits on an Asio timer. One per process at a
// time.
std::unique_ptr<Pause> signalPause();

// What a run of the program talks to: main builds the real ones, tests their fakes.
struct Context {
    std::ostream *out;
    std::ostream *err;
    // Opens the SMC connection; throws SMCError.
    std::function<std::shared_ptr<SMC>()> openSmc;
    // Files, environment (the discovery cache's place) and clock.
    SystemAccess system;
    // The client of the daemon's socket, made on first use and kept for the run.
    std::function<HelperClient &()> helper;
    // Installs and removes the daemon; may be null where no command needs it.
    const HelperInstaller *installer = nullptr;
    // Makes the pause `watch` waits with.
    std::function<std::unique_ptr<Pause>()> pause;
    // Whether the output is a terminal (watch then redraws in place).
    bool terminal = false;
};

// Runs the program; returns the exit status: 0 success, 1 failure (the message is on
// `err`), 2 usage error.
int run(int argc, const char *const *argv, Context &context);

}  // namespace ostrel::cli
