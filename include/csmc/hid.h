// Where temperature-sensor services come from, behind smc_hid_open.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "csmc/smc.h"
#include "csmc/transport.h"
#include "csmc/transport_registry.h"
#include "ostrel/platform/files.h"

namespace csmc {

// A fixed list of temperature sensors.
class TemperatureServices {
  public:
    virtual ~TemperatureServices() = default;
    // The services' display names, in their fixed order. Called once, at opening; an
    // empty name stands for a service without one.
    virtual std::vector<std::string> names() = 0;
    // Hands the current readings to `take` in the services' order, with their index into
    // names() (nothing for a service that has no reading now), and stops reading as soon as
    // `take` returns false: a caller with room for a few readings costs a few reads.
    virtual void read(const std::function<bool(std::size_t, std::optional<double>)> &take) = 0;
    // Whether these are the sensor services of an Apple-silicon chip (a virtual Mac's list,
    // or Linux's macsmc_hwmon chip) rather than the hwmon chips Linux finds on any PC
    // (coretemp, the GPU's, the SSD's). Discovery tells the machine's family by it.
    virtual bool chipServices() const = 0;
};

// The hwmon temperature inputs under `sysfs`/class/hwmon, every chip but applesmc.
std::unique_ptr<TemperatureServices> hwmonServices(const std::string &sysfs,
                                                   const ostrel::platform::Files &files);

// A virtual Mac's sensor list through a transport; null when the transport has none.
std::unique_ptr<TemperatureServices> transportServices(std::unique_ptr<Transport> transport);

// The services of the machine an open connection reaches: a virtual Mac's list through the
// connection's own transport (borrowed: the connection must outlive the services), or on
// real hardware the hwmon inputs under `sysfs`.
std::unique_ptr<TemperatureServices> connectionServices(smc_conn *conn, const std::string &sysfs,
                                                        const ostrel::platform::Files &files);

// The services of the machine a process reaches (what smc_hid_open opens): the sensor list
// of a virtual Mac that its selector names, otherwise the hwmon inputs under its sysfs.
// Null when the selector names nothing that opens.
std::unique_ptr<TemperatureServices> selectedServices(const ProcessMachine &machine);

// A handle on the given services; null when `services` is null or has none.
smc_hid *openHid(std::unique_ptr<TemperatureServices> services);

// The display word for an hwmon chip name: coretemp -> "CPU", nvme -> "SSD", ...; unknown
// chips keep their own name.
std::string hwmonChipWord(const std::string &chip);

}  // namespace csmc
