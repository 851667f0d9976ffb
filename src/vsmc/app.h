// The `ostrel-vsmc` program as a library, so that tests can run it in-process:
//
//     ostrel-vsmc --profile NAME|FILE [--socket PATH] [--speed N] [--seed N] [--scenario FILE]
//     ostrel-vsmc profiles
//     ostrel-vsmc ctl [--socket PATH] COMMAND ...
#pragma once

#include <iosfwd>

#include "ostrel/platform/clock.h"
#include "ostrel/platform/environment.h"
#include "ostrel/platform/files.h"

namespace ostrel::vsmc::app {

// What a run talks to; main builds the real ones. Every member must be set.
struct Context {
    std::ostream *out;
    std::ostream *err;
    const platform::Files *files;              // profiles, scenarios and the socket file
    const platform::Environment *environment;  // OSTREL_ROOT for the default socket
    platform::Clock *clock;                    // the simulation's time, ctl's time-out
};

// Runs the program; returns the exit status: 0 success, 1 failure (the message is on
// `err`), 2 usage error. Serving blocks until SIGTERM or SIGINT. Never throws.
int run(int argc, const char *const *argv, Context &context);

}  // namespace ostrel::vsmc::app
