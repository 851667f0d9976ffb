#include "controller.h"

#include <fmt/format.h>

#include <cmath>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "ostrel/policy_store.h"

namespace ostrel::helper {

namespace {

std::unique_ptr<Sampler> makeSampler(const ControllerServices &services) {
    // Discovery runs afresh on every start: the daemon never trusts a cache file.
    auto sampler = std::make_unique<Sampler>(services.openSMC(), SamplerScope::essential,
                                             /*useCache=*/false, services.system);
    sampler->parts = {SamplerParts::temperatures, SamplerParts::fans};
    sampler->fanLimitRefresh = Controller::kFanLimitRefresh;
    return sampler;
}

std::string fanLine(std::int64_t fan, std::string_view text) {
    return fmt::format("fan {}: {}", fan, text);
}

}  // namespace

Controller::Controller(ControllerServices services)
    : queue_(services.queue),
      services_(std::move(services)),
      sampler_(makeSampler(services_)),
      writer_(std::make_unique<FanWriter>(sampler_->smc(), sampler_->discovery(),
                                          *services_.system.clock)),
      engine_(SafetyLimits::forHardware(sampler_->discovery().fanTestKey)) {}

Controller::~Controller() {
    if (!timer_) {
        return;
    }
    if (queue_.isCurrent()) {
        timer_.reset();
    } else {
        queue_.sync([this] { timer_.reset(); });
    }
}

void Controller::requireQueue(const char *operation) const {
    if (!queue_.isCurrent()) {
        throw std::logic_error(std::string("Controller::") + operation + " off its queue");
    }
}

bool Controller::hasFan(std::int64_t fan) const {
    for (const FanDescriptor &descriptor : sampler_->fans()) {
        if (descriptor.index == fan) {
            return true;
        }
    }
    return false;
}

void Controller::start() {
    if (started_) {
        throw std::logic_error("Controller::start called twice");
    }
    queue_.sync([this] {
        writer_->setAllAuto();
        const Discovery &discovery = sampler_->discovery();
        std::size_t essential = 0;
        for (const SensorDescriptor &sensor : discovery.sensors) {
            essential += sensor.essential;
        }
        services_.log(fmt::format("started; {} fan(s), {} control sensors; fans set to auto",
                                  discovery.fans.size(), essential));
        // The map is ordered by fan index, so policies come back in fan order.
        for (const auto &[fan, policy] :
             PolicyStore::load(services_.policiesPath, services_.files)) {
            if (hasFan(fan) && !policy.isAuto()) {
                engine_.set(policy, fan);
                services_.log(fanLine(fan, "restored " + policy.description()));
            }
        }
        timer_ = queue_.repeating(kTickInterval, kTickInterval, kTickLeeway, [this] { tick(); });
    });
    started_ = true;
}

void Controller::tick() {
    requireQueue("tick");
    if (stopped_) {
        return;
    }
    noticeSleep();
    if (!engine_.isActive()) {
        return;
    }
    Snapshot snapshot = withKnownLimits(sampler_->sample());
    reclaimFans(snapshot);
    for (const FanPolicyEngine::Action &action : engine_.tick(snapshot)) {
        apply(action);
    }
}

void Controller::noticeSleep() {
    const platform::Clock &clock = *services_.system.clock;
    auto now = std::make_pair(clock.monotonic(), clock.sinceBoot());
    auto last = std::exchange(lastTick_, now);
    if (!last || !engine_.isActive()) {
        return;
    }
    auto asleep = (now.second - last->second) - (now.first - last->first);
    if (asleep <= kSleepGap) {
        return;
    }
    // Resume hands the fans to the firmware, may change their limits and clears the test
    // key: nothing the daemon remembers about them holds any more.
    written_.clear();
    sampler_->invalidateFanLimits();
    writer_->forgetUnlock();
    services_.log(fmt::format("resumed after {} s asleep; re-applying fan policies",
                              std::chrono::duration_cast<std::chrono::seconds>(asleep).count()));
}

Snapshot Controller::withKnownLimits(Snapshot snapshot) {
    bool whole = true;
    for (const FanReading &fan : snapshot.fans()) {
        if (fan.max > 0) {
            knownLimits_[fan.id] = {fan.min, fan.max};
        }
        whole = whole && fan.max > 0;
    }
    if (whole) {
        return snapshot;  // the usual tick: nothing to mend, nothing copied
    }
    sampler_->invalidateFanLimits();
    std::vector<FanReading> fans;
    for (FanReading fan : snapshot.fans()) {
        if (fan.max <= 0) {
            auto known = knownLimits_.find(fan.id);
            if (known == knownLimits_.end()) {
                continue;
            }
            std::tie(fan.min, fan.max) = known->second;
        }
        fans.push_back(std::move(fan));
    }
    return Snapshot(snapshot.timestamp(), snapshot.temperatures(), std::move(fans),
                    snapshot.power(), snapshot.voltages(), snapshot.currents(), snapshot.battery());
}

void Controller::reclaimFans(const Snapshot &snapshot) {
    for (const FanReading &fan : snapshot.fans()) {
        auto it = written_.find(fan.id);
        if (it == written_.end()) {
            continue;
        }
        bool moved = fan.target && std::abs(*fan.target - it->second) >= kMinimumChange;
        // A mode that failed to read looks automatic in the sample; ask again before
        // believing it, so a passing read error does not count as a takeover.
        if (!moved && (fan.manual || writer_->isManual(fan.id).value_or(true))) {
            continue;
        }
        written_.erase(it);
        if (sampler_->discovery().fanTestKey) {
            writer_->forgetUnlock();  // whoever took the fan may have cleared the key too
        }
        services_.log(fanLine(fan.id, "firmware took control back; re-applying"));
    }
}

void Controller::apply(const FanPolicyEngine::Action &action) {
    if (auto *manual = std::get_if<FanPolicyEngine::Manual>(&action)) {
        writeManual(manual->fan, manual->rpm);
    } else if (auto *automatic = std::get_if<FanPolicyEngine::Auto>(&action)) {
        try {
            writer_->setAuto(automatic->fan);
        } catch (const std::exception &) {
            // The next policy change or the failsafe hands it back with all the others.
        }
        written_.erase(automatic->fan);
    } else if (auto *failsafe = std::get_if<FanPolicyEngine::Failsafe>(&action)) {
        writer_->setAllAuto();
        written_.clear();
        const SafetyLimits &limits = engine_.limits();
        services_.log(fmt::format(
            "FAILSAFE: {:.1f} °C ≥ {:.0f} °C; fans on auto, policies suspended until below "
            "{:.0f} °C for {} s",
            failsafe->temperature, limits.ceiling, limits.resumeBelow,
            limits.resumeTicks * kTickInterval.count()));
    } else if (auto *resume = std::get_if<FanPolicyEngine::Resume>(&action)) {
        services_.log(
            fmt::format("cooled to {:.1f} °C; resuming fan policies", resume->temperature));
    }
}

void Controller::writeManual(std::int64_t fan, double rpm) {
    double target = rpm;
    if (auto it = written_.find(fan); it != written_.end()) {
        if (std::abs(target - it->second) < kMinimumChange) {
            return;
        }
        // Speeds go up at once but come down gently, so a fan never drops audibly.
        target = std::max(target, it->second - kLargestDecrease);
    }
    try {
        written_[fan] = writer_->setManual(fan, target);
    } catch (const std::exception &e) {
        services_.log(fanLine(fan, std::string("write failed: ") + e.what()));
    }
}

void Controller::setPolicy(const FanPolicy &policy, std::int64_t fan) {
    requireQueue("setPolicy");
    policy.validate();
    std::vector<std::int64_t> fans;
    if (fan == -1) {
        for (const FanDescriptor &descriptor : sampler_->fans()) {
            fans.push_back(descriptor.index);
        }
    } else if (hasFan(fan)) {
        fans.push_back(fan);
    } else {
        throw FanControlError::noSuchFan(fan);
    }
    for (std::int64_t index : fans) {
        engine_.set(policy, index);
        written_.erase(index);  // the next tick writes the new target whatever it is
        if (policy.isAuto()) {
            try {
                writer_->setAuto(index);
            } catch (const std::exception &e) {
                services_.log(
                    fanLine(index, fmt::format("auto failed ({}); resetting all fans", e.what())));
                writer_->setAllAuto();
            }
        }
        services_.log(fanLine(index, policy.description()));
    }
    // On test-key machines one fan handed back leaves the test key set; with no policy
    // left, the firmware gets every fan and the key back.
    if (!engine_.isActive() && sampler_->discovery().fanTestKey) {
        writer_->setAllAuto();
    }
    try {
        PolicyStore::save(engine_.policies(), services_.policiesPath, services_.files);
    } catch (const std::exception &e) {
        services_.log(std::string("could not save policies: ") + e.what());
    }
}

void Controller::shutdown(const std::string &reason) {
    requireQueue("shutdown");
    stopped_ = true;
    timer_.reset();
    writer_->setAllAuto();
    services_.log(reason + "; fans returned to auto");
}

}  // namespace ostrel::helper
