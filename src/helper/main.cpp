// ostrel-helper: the composition root. It builds the real services and hands over to the
// daemon's entry (daemon.h).

#include <unistd.h>

#include <iostream>

#include "daemon.h"

int main(int argc, char **argv) {
    using namespace ostrel;
    platform::Clock &clock = platform::realClock();
    std::unique_ptr<platform::Processes> processes = platform::realProcesses(clock);
    std::unique_ptr<helper::ServiceManager> systemd = helper::systemdServiceManager();
    helper::DaemonServices services{
        std::cout,
        helper::standardErrorLog(clock),
        platform::processEnvironment(),
        clock,
        platform::realFiles(),
        platform::realFileAccess(),
        platform::realProcessAccess(),
        *processes,
        *systemd,
        [] { return std::make_shared<SMC>(); },
        static_cast<std::uint32_t>(::getuid()),
        static_cast<std::uint32_t>(::getgid()),
    };
    return helper::runDaemon(std::vector<std::string>(argv, argv + argc), services);
}
