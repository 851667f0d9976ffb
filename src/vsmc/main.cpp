#include "app.h"

int main(int argc, char **argv) {
    ostrel::vsmc::app::Context context = ostrel::vsmc::app::defaultContext();
    return ostrel::vsmc::app::run(argc, argv, context);
}
