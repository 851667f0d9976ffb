// Runs `ostrel` in-process with captured output.
#pragma once

#include <functional>
#include <memory>
#include <sstream>
#include <vector>

#include "cli.h"

namespace ostrel::test {

struct CliHarness {
    std::ostringstream out, err;
    std::ostream *output = &out;  // where the commands print; `out` unless a test says
    // What the daemon commands and `watch` use; set by the tests that run them.
    std::function<HelperClient &()> helper;
    std::function<std::unique_ptr<cli::Pause>()> pause;
    bool terminal = false;

    // `args` without the program name; `openSmc` gives the machine the commands talk to.
    int run(std::vector<const char *> args, std::function<std::shared_ptr<SMC>()> openSmc,
            SystemAccess system = {}) {
        args.insert(args.begin(), "ostrel");
        cli::Context context{output, &err,    std::move(openSmc), system, helper, nullptr,
                             pause,  terminal};
        return cli::run(static_cast<int>(args.size()), args.data(), context);
    }
};

}  // namespace ostrel::test
