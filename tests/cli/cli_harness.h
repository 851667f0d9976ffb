// Runs `ostrel` in-process in a sandbox with captured output.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <vector>

#include "cli.h"
#include "support/sandbox.h"

namespace ostrel::test {

struct CliHarness : Sandbox {
    std::ostringstream out, err;
    std::ostream *output = &out;  // where the commands print; `out` unless a test says
    // The machine the commands talk to.
    std::function<std::shared_ptr<SMC>()> openSmc;
    // What the daemon commands and `watch` use; set by the tests that run them.
    std::function<HelperClient &()> helper;
    std::function<std::unique_ptr<cli::Pause>()> pause;
    bool terminal = false;

    // Runs `ostrel ARGS` (without the program name) on emptied `out` and `err`; returns
    // the exit status.
    int run(std::vector<const char *> args) {
        out.str("");
        err.str("");
        args.insert(args.begin(), "ostrel");
        cli::Context context{output, &err, openSmc, system, helper, nullptr, pause, terminal};
        return cli::run(static_cast<int>(args.size()), args.data(), context);
    }
    // What `ostrel ARGS` prints; the run must exit with `status`.
    std::string printed(std::vector<const char *> args, int status = 0) {
        EXPECT_EQ(run(args), status) << args[0] << ": " << err.str();
        return out.str();
    }
};

}  // namespace ostrel::test
