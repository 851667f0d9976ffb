#include "ostrel/machine_model.h"

#include "csmc/transport.h"

namespace ostrel {

std::string machineModel(const SMC *smc, const platform::Paths &paths,
                         const platform::Files &files) {
    if (smc != nullptr) {
        if (auto model = csmc::transportOf(smc->conn()).modelIdentifier()) {
            return *model;
        }
    }
    std::string model = files.read(paths.sysfs() + "/class/dmi/id/product_name").value_or("");
    // The file holds one line; stop at its end (and at any NUL, as the firmware pads).
    model = model.substr(0, model.find_first_of(std::string("\n\0", 2)));
    while (!model.empty() && model.back() == ' ') {
        model.pop_back();
    }
    return model;
}

}  // namespace ostrel
