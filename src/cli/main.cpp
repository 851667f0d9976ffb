// The composition root of `ostrel`: the one place that builds the real operating-system
// services and the transports the program offers, and hands them down.

#include <iostream>
#include <memory>

#include "cli.h"
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

    cli::Context context{
        &std::cout,
        &std::cerr,
        [transports, selector] { return std::make_shared<SMC>(transports->open(selector)); },
        SystemAccess{&environment, &files, &platform::realClock()},
    };
    return cli::run(argc, argv, context);
}
