#include "cli.h"

int main(int argc, char **argv) {
    ostrel::cli::Context context = ostrel::cli::defaultContext();
    return ostrel::cli::run(argc, argv, context);
}
