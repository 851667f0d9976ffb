#include "ostrel/policy_engine.h"

#include <cmath>

namespace ostrel {

bool FanPolicyEngine::isActive() const {
    for (const auto &[fan, policy] : policies_) {
        if (!policy.isAuto()) {
            return true;
        }
    }
    return false;
}

void FanPolicyEngine::reset() {
    suspended_ = false;
    hotTicks_ = 0;
    coolTicks_ = 0;
}

void FanPolicyEngine::set(const FanPolicy &policy, std::int64_t fan) {
    if (policy.isAuto()) {
        policies_.erase(fan);
    } else {
        policies_.insert_or_assign(fan, policy);
    }
    if (!isActive()) {
        reset();
    }
}

void FanPolicyEngine::clear() {
    policies_.clear();
    reset();
}

template <typename Visit>
void FanPolicyEngine::forEachPolicyFan(const Snapshot &snapshot, Visit visit) const {
    for (const FanReading &fan : snapshot.fans()) {
        auto it = policies_.find(fan.id);
        if (it != policies_.end()) {
            visit(fan, it->second);
        }
    }
}

std::vector<FanPolicyEngine::Action> FanPolicyEngine::policyActions(
    const Snapshot &snapshot) const {
    std::vector<Action> actions;
    forEachPolicyFan(snapshot, [&](const FanReading &fan, const FanPolicy &policy) {
        if (const FanPolicy::Fixed *fixed = policy.asFixed()) {
            actions.push_back(Manual{fan.id, resolveSpeed(fixed->rpm, fan.min, fan.max)});
        } else if (const FanPolicy::Curve *curve = policy.asCurve()) {
            std::optional<double> temperature = snapshot.temperature(curve->curve.sensor);
            if (!temperature) {
                actions.push_back(Auto{fan.id});  // nothing to follow: the firmware decides
            } else {
                actions.push_back(Manual{fan.id, curve->curve.rpm(*temperature, fan.min, fan.max)});
            }
        }
    });
    return actions;
}

// Fans whose policy already commands full speed stay at full speed through the failsafe.
std::vector<FanPolicyEngine::Action> FanPolicyEngine::fullCoolingActions(
    const Snapshot &snapshot) const {
    std::vector<Action> actions;
    forEachPolicyFan(snapshot, [&](const FanReading &fan, const FanPolicy &policy) {
        const FanPolicy::Fixed *fixed = policy.asFixed();
        if (fixed != nullptr && (std::isinf(fixed->rpm) || fixed->rpm >= 0.95 * fan.max)) {
            actions.push_back(Manual{fan.id, fan.max});
        }
    });
    return actions;
}

std::vector<FanPolicyEngine::Action> FanPolicyEngine::tick(const Snapshot &snapshot) {
    if (!isActive()) {
        return {};
    }
    double t = snapshot.hottest().value_or(0.0);
    std::vector<Action> fullCooling = fullCoolingActions(snapshot);
    if (fullCooling.size() == policies_.size()) {
        // Every policy already runs its fan flat out: handing fans to the firmware could
        // only slow them down.
        reset();
        return policyActions(snapshot);
    }
    if (suspended_) {
        coolTicks_ = t < limits_.resumeBelow ? coolTicks_ + 1 : 0;
        if (coolTicks_ < limits_.resumeTicks) {
            return fullCooling;
        }
        reset();
        std::vector<Action> actions{Resume{t}};
        std::vector<Action> policy = policyActions(snapshot);
        actions.insert(actions.end(), policy.begin(), policy.end());
        return actions;
    }
    hotTicks_ = t >= limits_.ceiling ? hotTicks_ + 1 : 0;
    if (hotTicks_ < limits_.triggerTicks) {
        return policyActions(snapshot);
    }
    reset();
    suspended_ = true;
    std::vector<Action> actions{Failsafe{t}};
    actions.insert(actions.end(), fullCooling.begin(), fullCooling.end());
    return actions;
}

}  // namespace ostrel
