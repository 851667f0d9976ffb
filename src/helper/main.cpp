// The composition root of `ostrel-helper`: the one place that builds the real
// operating-system services and the transports the daemon offers (the applesmc driver and
// the virtual Mac's socket, never the in-process simulator), and hands them to the
// daemon's entry (daemon.h).

#include <unistd.h>

#include <iostream>
#include <memory>

#include "csmc/applesmc.h"
#include "csmc/transport_registry.h"
#include "csmc/vsmc_transport.h"
#include "daemon.h"

int main(int argc, char **argv) {
    using namespace ostrel;
    const platform::Environment &environment = platform::processEnvironment();
    const platform::Files &files = platform::realFiles();
    platform::Clock &clock = platform::realClock();
    platform::Paths paths(environment);

    auto transports = std::make_shared<csmc::TransportRegistry>();
    csmc::addApplesmcTransport(*transports, platform::realSysfs(), paths);
    csmc::addVsmcTransport(*transports, clock);
    std::string selector = environment.get("OSTREL_SMC").value_or("");
    csmc::installProcessMachine({transports, selector, paths.sysfs(), &files});

    std::unique_ptr<platform::Processes> processes = platform::realProcesses(clock);
    std::unique_ptr<helper::ServiceManager> systemd = helper::systemdServiceManager();
    helper::DaemonServices services{
        std::cout,
        helper::standardErrorLog(clock),
        environment,
        clock,
        files,
        platform::realFileAccess(),
        platform::realProcessAccess(),
        *processes,
        *systemd,
        [transports, selector] { return std::make_shared<SMC>(transports->open(selector)); },
        static_cast<std::uint32_t>(::getuid()),
        static_cast<std::uint32_t>(::getgid()),
    };
    return helper::runDaemon(std::vector<std::string>(argv, argv + argc), services);
}
