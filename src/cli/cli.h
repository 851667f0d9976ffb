// The `ostrel` command-line program, as a library so that tests can run it in-process.
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>

#include "ostrel/smc.h"
#include "ostrel/system_access.h"

namespace ostrel::cli {

// What a run of the program talks to: main builds the real ones, tests their fakes.
struct Context {
    std::ostream *out;
    std::ostream *err;
    // Opens the SMC connection; throws SMCError.
    std::function<std::shared_ptr<SMC>()> openSmc;
    // Files, environment (the discovery cache's place) and clock.
    SystemAccess system;
};

// Runs the program; returns the exit status: 0 success, 1 failure (the message is on
// `err`), 2 usage error.
int run(int argc, const char *const *argv, Context &context);

}  // namespace ostrel::cli
