// A virtual Mac as the server runs it: the machine, the speed of its clock, and the
// answers to the JSON calls of the wire protocol (identity, sensor services, battery and
// the control calls of `ostrel-vsmc ctl`, all documented in docs/vsmc-protocol.md).
//
// Pure: no I/O, no threads, no clock of its own. The server calls elapse() with the real
// time that passed and serialises every call on its one thread.
#pragma once

#include <cstdint>
#include <string>

#include "ostrel/platform/json.h"
#include "ostrel/vsmc/machine.h"

namespace ostrel::vsmc {

class VirtualMac {
  public:
    // Longest stretch of simulated time one `advance` call may ask for (a day).
    static constexpr double kMaxAdvance = 86400;
    static constexpr double kMaxSpeed = 1000;

    // A machine for `profile` that refuses writes from unprivileged peers. `speed` is simulated
    // seconds per real second (0 pauses).
    VirtualMac(const Profile &profile, std::uint64_t seed, double speed);

    Machine &machine() { return machine_; }
    const Machine &machine() const { return machine_; }
    double speed() const { return speed_; }

    // Lets `realSeconds` of wall-clock time pass at the current speed.
    void elapse(double realSeconds);

    // Answers one call: {"call": NAME, ...}. Always returns an object: {"ok": true, ...}
    // with the call's result, or {"ok": false, "error": MESSAGE} for a request that cannot
    // be carried out. Never throws.
    Json call(const Json &request);

    // The status report: statusJson of the machine plus "speed" and "profile".
    Json status() const;

  private:
    Json dispatch(const std::string &name, const Json &request);

    std::string profileSource_;
    Machine machine_;
    double speed_;
};

}  // namespace ostrel::vsmc
