// The C test's composition root, in C++ because the transports are C++: the machine that
// OSTREL_SMC names, as a program's main would install it.

#include "ostrel/platform/environment.h"
#include "support/transports.h"

extern "C" void install_test_machine(void) {
    const auto &env = ostrel::platform::processEnvironment();
    csmc::installProcessMachine({ostrel::test::allTransports(env),
                                 env.get("OSTREL_SMC").value_or(""), "/sys",
                                 &ostrel::platform::realFiles()});
}
