// The model identifier of the machine ("MacBookPro16,1").
#pragma once

#include <string>

#include "ostrel/platform/files.h"
#include "ostrel/platform/paths.h"
#include "ostrel/smc.h"

namespace ostrel {

// The virtual Mac's own identifier when `smc` is connected to one; otherwise the DMI
// product name under the sysfs root, where Apple firmware puts the model identifier.
// "" when neither is known. Never fails.
std::string machineModel(const SMC *smc, const platform::Paths &paths,
                         const platform::Files &files);

}  // namespace ostrel
