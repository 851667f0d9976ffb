// A program built the way the daemon will be: the kit with the applesmc and vsmc-socket
// transports and nothing else. The test suite links it and checks with nm that no symbol
// of the virtual Mac came along.

#include "csmc/applesmc.h"
#include "csmc/vsmc_transport.h"
#include "ostrel/sampler.h"

int main() {
    using namespace ostrel;
    const platform::Environment &environment = platform::processEnvironment();
    platform::Paths paths(environment);
    auto transports = std::make_shared<csmc::TransportRegistry>();
    csmc::addApplesmcTransport(*transports, platform::realSysfs(), paths);
    csmc::addVsmcTransport(*transports, platform::realClock());
    csmc::installProcessMachine({transports, environment.get("OSTREL_SMC").value_or(""),
                                 paths.sysfs(), &platform::realFiles()});
    SystemAccess system{&environment, &platform::realFiles(), &platform::realClock()};
    try {
        Sampler sampler(nullptr, SamplerScope::essential, false, system);
        return sampler.sample().temperatures().empty() ? 1 : 0;
    } catch (const SMCError &) {
        return 1;
    }
}
