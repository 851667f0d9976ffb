// The daemon's process entry as a library function: `ostrel-helper [--print-version]
// [--release-fans] [--source PATH]`, with everything it takes from the system passed in.
//
// Start-up, in order: "--print-version" anywhere prints the version (any user); then the
// root check (skipped inside an OSTREL_ROOT sandbox, which belongs to the user running
// it); "--release-fans" hands every fan to the firmware and exits (the unit's
// ExecStopPost=); otherwise the controller is created and started, SIGTERM, SIGINT and
// SIGHUP and a watch on the daemon's own executable are installed on the main thread's
// loop, the self-update check is armed (with "--source" and a signing team of its own),
// the control service listens, and systemd hears READY=1. Every stop (a signal, the
// executable replaced, a completed self-update) closes the service, runs the controller's
// shutdown on its queue (all fans back to the firmware) and returns 0.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "log.h"
#include "ostrel/platform/clock.h"
#include "ostrel/platform/environment.h"
#include "ostrel/platform/file_access.h"
#include "ostrel/platform/files.h"
#include "ostrel/platform/process.h"
#include "ostrel/platform/process_access.h"
#include "ostrel/smc.h"
#include "service_manager.h"

namespace ostrel::helper {

// The command line. Unknown arguments are ignored.
struct DaemonOptions {
    std::string program;  // the first argument: where the daemon was started from
    bool printVersion = false;
    bool releaseFans = false;
    std::optional<std::string> source;  // the first "--source" with a path after it
};

DaemonOptions parseArguments(const std::vector<std::string> &args);

// Everything the daemon takes from the system. The references must outlive runDaemon.
struct DaemonServices {
    std::ostream &out;  // --print-version
    LogSink log;        // standardErrorLog in the daemon
    const platform::Environment &environment;
    platform::Clock &clock;
    const platform::Files &files;            // the policies file
    const platform::FileAccess &fileAccess;  // its own executable, updates, peers' files
    const platform::ProcessAccess &processAccess;
    platform::Processes &processes;  // a self-update candidate's --print-version
    ServiceManager &serviceManager;
    std::function<std::shared_ptr<SMC>()> openSMC;  // throws SMCError
    std::uint32_t uid = 0;                          // the real user and group ids
    std::uint32_t gid = 0;
};

// Runs the daemon to its end on the calling thread, which becomes the main loop's; returns
// the exit status: 0 after --print-version, --release-fans and every orderly stop, 1 when
// not root outside a sandbox, when the SMC cannot be opened, when fans cannot be released
// and when another daemon already answers on the socket. Never calls exit().
int runDaemon(const std::vector<std::string> &args, DaemonServices &services);

}  // namespace ostrel::helper
