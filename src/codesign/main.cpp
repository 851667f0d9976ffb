#include "codesign.h"

int main(int argc, char **argv) {
    return ostrel::codesign::run(argc, argv, ostrel::codesign::defaultContext());
}
