// The operating-system services the kit's sensing code uses, bundled so that tests can
// hand in fakes: the environment (OSTREL_ROOT, the cache directory), files, and the clock.
// Each executable's main fills one with the real implementations and hands it down; the
// kit never reaches for them itself. Every member must be set and outlive its users.
#pragma once

#include "ostrel/platform/clock.h"
#include "ostrel/platform/environment.h"
#include "ostrel/platform/files.h"
#include "ostrel/platform/paths.h"

namespace ostrel {

struct SystemAccess {
    const platform::Environment *environment = nullptr;
    const platform::Files *files = nullptr;
    platform::Clock *clock = nullptr;

    platform::Paths paths() const { return platform::Paths(*environment); }
};

}  // namespace ostrel
