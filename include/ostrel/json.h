// The kit's JSON type and strict readers live below the kit, where the virtual Mac can use
// them too; the kit's users keep including them under this name.
#pragma once

#include "ostrel/platform/json.h"
