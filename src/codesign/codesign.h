// The `ostrel-codesign` program, as a library so that tests can run it in-process.
#pragma once

#include <iosfwd>

#include "ostrel/platform/file_access.h"

namespace ostrel::codesign {

// What a run of the program talks to. The defaults are the real ones.
struct Context {
    std::ostream *out;
    std::ostream *err;
    const platform::FileAccess *files;
};

// Runs the program; returns the exit status: 0 success (for verify: valid and satisfied),
// 1 failure (the reason is on `err`), 2 usage error.
int run(int argc, const char *const *argv, const Context &context);

}  // namespace ostrel::codesign
