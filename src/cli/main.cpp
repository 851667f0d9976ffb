// The composition root of `ostrel`: the one place that builds the real operating-system
// services and the transports the program offers, and hands them down.

#include <unistd.h>

#include <iostream>
#include <memory>

#include "cli.h"
#include "ostrel/helper_constants.h"
#include "ostrel/platform/file_access.h"
#include "ostrel/platform/process.h"
#include "ostrel/vsmc/memory_transport.h"

int main(int argc, char **argv) {
    using namespace ostrel;
    const platform::Environment &environment = platform::processEnvironment();
    const platform::Files &files = platform::realFiles();
    platform::Paths paths(environment);

    auto transports = std::make_shared<csmc::TransportRegistry>();
    vsmc::addAllTransports(*transports, files, platform::realClock(), platform::realSysfs(), paths);
    std::string selector = environment.get("OSTREL_SMC").value_or("");
    csmc::installProcessMachine({transports, selector, paths.sysfs(), &files});

    // The daemon's client and the queue that times its requests, made only by the commands
    // that talk to the daemon; the client goes first, as it uses the queue.
    std::unique_ptr<platform::SerialQueue> deadlines;
    std::unique_ptr<HelperClient> client;
    std::unique_ptr<platform::Processes> processes = platform::realProcesses(platform::realClock());
    HelperInstaller installer({&paths, &environment, &files, &platform::realFileAccess(),
                               processes.get(), platform::currentProcess()});

    cli::Context context{
        &std::cout,
        &std::cerr,
        [transports, selector] { return std::make_shared<SMC>(transports->open(selector)); },
        SystemAccess{&environment, &files, &platform::realClock()},
        [&]() -> HelperClient & {
            if (!client) {
                deadlines = std::make_unique<platform::SerialQueue>(
                    "dev.ostrel.client.deadlines",
                    [](const std::string &message) { std::cerr << "ostrel: " << message << '\n'; });
                client =
                    std::make_unique<HelperClient>(HelperConstants::socketPath(paths), *deadlines);
            }
            return *client;
        },
        &installer,
        cli::signalPause,
        ::isatty(STDOUT_FILENO) == 1,
    };
    int status = cli::run(argc, argv, context);
    client.reset();
    return status;
}
