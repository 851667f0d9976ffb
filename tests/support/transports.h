// The transports the CLI offers, for tests that open connections by selector.
#pragma once

#include <memory>

#include "csmc/transport_registry.h"
#include "ostrel/vsmc/memory_transport.h"

namespace ostrel::test {

// memory:, vsmc: and applesmc (the default) on the real files, clock and sysfs, under the
// OSTREL_ROOT that `env` gives (which must outlive the registry).
inline std::shared_ptr<csmc::TransportRegistry> allTransports(const platform::Environment &env) {
    auto registry = std::make_shared<csmc::TransportRegistry>();
    vsmc::addAllTransports(*registry, platform::realFiles(), platform::realClock(),
                           platform::realSysfs(), platform::Paths(env));
    return registry;
}

}  // namespace ostrel::test
