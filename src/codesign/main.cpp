// The composition root of `ostrel-codesign`: the real files, handed down once.

#include <iostream>

#include "codesign.h"

int main(int argc, char **argv) {
    ostrel::codesign::Context context{&std::cout, &std::cerr, &ostrel::platform::realFileAccess()};
    return ostrel::codesign::run(argc, argv, context);
}
