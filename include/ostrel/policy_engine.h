// The policy engine: per-fan policies plus one snapshot in, the fan actions of one control
// tick out, with the temperature failsafe that hands every fan back to the firmware when
// the machine stays too hot. A plain value without I/O or locks; the controller owns it
// and changes it on its own queue only.
#pragma once

#include <cstdint>
#include <variant>
#include <vector>

#include "ostrel/fan_policy.h"
#include "ostrel/models.h"

namespace ostrel {

struct SafetyLimits {
    double ceiling = 0;             // a tick at or above this (°C) is hot
    double resumeBelow = 0;         // while suspended, a tick strictly below this is cool
    std::int64_t resumeTicks = 0;   // consecutive cool ticks needed to resume
    std::int64_t triggerTicks = 0;  // consecutive hot ticks needed to trigger

    static SafetyLimits intel() { return {95.0, 85.0, 30, 2}; }
    static SafetyLimits appleSilicon() { return {110.0, 100.0, 30, 2}; }
    // The daemon passes discovery's test-key flag: only Apple silicon has the test key.
    static SafetyLimits forHardware(bool appleSilicon) {
        return appleSilicon ? SafetyLimits::appleSilicon() : intel();
    }

    bool operator==(const SafetyLimits &) const = default;
};

class FanPolicyEngine {
  public:
    struct Manual {  // manual mode at this speed (the controller smooths it)
        std::int64_t fan = 0;
        double rpm = 0;
        bool operator==(const Manual &) const = default;
    };
    struct Auto {  // hand the fan back to the firmware
        std::int64_t fan = 0;
        bool operator==(const Auto &) const = default;
    };
    struct Failsafe {  // hand every fan back; policies suspended
        double temperature = 0;
        bool operator==(const Failsafe &) const = default;
    };
    struct Resume {  // policies apply again
        double temperature = 0;
        bool operator==(const Resume &) const = default;
    };
    using Action = std::variant<Manual, Auto, Failsafe, Resume>;

    explicit FanPolicyEngine(SafetyLimits limits) : limits_(limits) {}

    // At least one policy that is not auto.
    bool isActive() const;
    // Auto removes the fan's policy, anything else replaces it (callers validate first).
    // Leaving no active policy resets the failsafe.
    void set(const FanPolicy &policy, std::int64_t fan);
    void clear();

    // The actions for one tick, in order: Failsafe or Resume first when the state changes,
    // then per-fan actions in the snapshot's fan order.
    std::vector<Action> tick(const Snapshot &snapshot);

    const PolicyMap &policies() const { return policies_; }
    const SafetyLimits &limits() const { return limits_; }
    bool suspended() const { return suspended_; }
    std::int64_t hotTicks() const { return hotTicks_; }
    std::int64_t coolTicks() const { return coolTicks_; }

  private:
    // Calls visit(fan, policy) for each snapshot fan that has a policy, in snapshot order.
    template <typename Visit>
    void forEachPolicyFan(const Snapshot &snapshot, Visit visit) const;
    std::vector<Action> policyActions(const Snapshot &snapshot) const;
    std::vector<Action> fullCoolingActions(const Snapshot &snapshot) const;
    void reset();

    PolicyMap policies_;
    SafetyLimits limits_;
    bool suspended_ = false;
    std::int64_t hotTicks_ = 0;
    std::int64_t coolTicks_ = 0;
};

}  // namespace ostrel
