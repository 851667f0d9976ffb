// A channel source that reaches up into the virtual Mac: the layer check must refuse it.
#include "ostrel/vsmc/machine.h"
