// The operating-system services the kit's sensing code uses, bundled so that tests can
// hand in fakes: the environment (OSTREL_ROOT, OSTREL_SMC, the cache directory), files,
// and the clock.
#pragma once

#include "ostrel/platform/clock.h"
#include "ostrel/platform/environment.h"
#include "ostrel/platform/files.h"
#include "ostrel/platform/paths.h"

namespace ostrel {

struct SystemAccess {
    const platform::Environment *environment = &platform::processEnvironment();
    const platform::Files *files = &platform::realFiles();
    platform::Clock *clock = &platform::realClock();

    platform::Paths paths() const { return platform::Paths(*environment); }
};

}  // namespace ostrel
