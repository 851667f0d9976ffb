// The `ostrel-vsmc` program as a library, so that tests can run it in-process:
//
//     ostrel-vsmc --profile NAME|FILE [--socket PATH] [--speed N] [--seed N] [--scenario FILE]
//     ostrel-vsmc profiles
//     ostrel-vsmc ctl [--socket PATH] COMMAND ...
#pragma once

#include <iosfwd>

#include "ostrel/platform/environment.h"
#include "ostrel/platform/files.h"

namespace ostrel::vsmc::app {

struct Context {
    std::ostream *out;
    std::ostream *err;
    const platform::Files *files;              // profiles and scenarios
    const platform::Environment *environment;  // OSTREL_ROOT for the default socket
};

Context defaultContext();

// Runs the program; returns the exit status: 0 success, 1 failure (the message is on
// `err`), 2 usage error. Serving blocks until SIGTERM or SIGINT.
int run(int argc, const char *const *argv, Context &context);

}  // namespace ostrel::vsmc::app
