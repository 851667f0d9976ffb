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

    // `args` without the program name; `openSmc` gives the machine the commands talk to.
    int run(std::vector<const char *> args, std::function<std::shared_ptr<SMC>()> openSmc,
            SystemAccess system = {}) {
        args.insert(args.begin(), "ostrel");
        cli::Context context{&out, &err, std::move(openSmc), system};
        return cli::run(static_cast<int>(args.size()), args.data(), context);
    }
};

}  // namespace ostrel::test
