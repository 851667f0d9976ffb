// A sandboxed system for one test: a temporary OSTREL_ROOT (also the home directory, so
// the discovery cache lands inside it), a fake environment and a fake clock.
#pragma once

#include "ostrel/system_access.h"
#include "support/temp_dir.h"

namespace ostrel::test {

struct Sandbox {
    TempDir root;
    platform::FakeEnvironment env{{{"OSTREL_ROOT", root.path()}, {"HOME", root.path()}}};
    platform::FakeClock clock;
    SystemAccess system{&env, &platform::realFiles(), &clock};
};

}  // namespace ostrel::test
