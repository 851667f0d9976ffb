// The composition root of `ostrel-vsmc`: the real files, environment and clock, handed
// down once. `ctl` talks to a server by its socket path and needs no transport registry.

#include <iostream>

#include "app.h"

int main(int argc, char **argv) {
    using namespace ostrel;
    vsmc::app::Context context{&std::cout, &std::cerr, &platform::realFiles(),
                               &platform::processEnvironment(), &platform::realClock()};
    return vsmc::app::run(argc, argv, context);
}
