// The controller under faults for a long while: a built-in virtual Mac in simulated time,
// random policy changes and load, and faults on one SMC exchange in twenty (refused
// writes, firmware and kernel errors), keys that vanish for a while, bogus fan limits and
// a policy store that refuses saves. After every tick the invariants that make the daemon
// safe on hardware that overheats are checked; whatever breaks one is kept as a message.
//
// The benchmark runs it long (bench/soak_bench.cpp); the suite runs it short
// (tests/helper/controller_test.cpp). Single-threaded; everything runs on a manual queue.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "controller.h"
#include "ostrel/policy_store.h"
#include "ostrel/vsmc/machine.h"
#include "ostrel/vsmc/memory_transport.h"

namespace ostrel::soak {

// What a run met and did, by the name it is reported under: "ticks", "exchanges",
// "refused_writes", "firmware_errors", "kernel_errors", "vanished_keys", "bogus_limits",
// "failed_saves", "policy_changes", "refused_changes", "failsafe_entries", "resumes", "checks".
using Counts = std::map<std::string, std::uint64_t>;

// Fails one exchange in twenty through the machine's own fault injection.
class FaultyTransport final : public csmc::Transport {
  public:
    FaultyTransport(vsmc::Machine &machine, std::mt19937_64 &random, Counts &counts)
        : machine_(machine), inner_(machine), random_(random), counts_(counts) {}
    bool enabled = false;
    std::uint32_t exchange(const smc_param &in, smc_param &out) override {
        ++counts_["exchanges"];
        if (enabled && std::uniform_int_distribution<int>(0, 19)(random_) == 0) {
            vsmc::Fault fault{in.key, in.command, 1, 0, SMC_RESULT_NOT_READABLE};
            if (in.command == SMC_CMD_WRITE && random_() % 2 == 0) {
                fault.result = SMC_RESULT_NOT_WRITABLE;
                ++counts_["refused_writes"];
            } else if (random_() % 2 == 0) {
                fault.kern = random_() % 2 ? SMC_KERN_IO_ERROR : SMC_KERN_BUSY;
                ++counts_["kernel_errors"];
            } else {
                ++counts_["firmware_errors"];
            }
            machine_.injectFault(fault);
        }
        return inner_.exchange(in, out);
    }

  private:
    vsmc::Machine &machine_;
    vsmc::MemoryTransport inner_;
    std::mt19937_64 &random_;
    Counts &counts_;
};

class Run {
  public:
    Run(const char *profile, std::uint64_t seed)
        : machine_(vsmc::builtinProfile(profile), seed), random_(seed) {
        controller_ = std::make_unique<helper::Controller>(helper::ControllerServices{
            queue_, SystemAccess{&env_, &files_, &clock_}, files_, kPath,
            [this](std::string_view line) { log_.emplace_back(line); },
            [this] {
                auto transport = std::make_unique<FaultyTransport>(machine_, random_, counts);
                transport_ = transport.get();
                return std::make_shared<SMC>(std::move(transport));
            }});
        controller_->start();
        for (const SensorDescriptor &s : controller_->discovery().sensors) {
            if (s.essential && s.quantity == Quantity::temperature) {
                essential_.insert(s.info.key.rawValue);
            }
        }
        for (std::size_t fan = 0; fan < machine_.fanCount(); ++fan) {
            auto [min, max] = limitsOf(static_cast<char>('0' + fan));
            realLimits_.emplace_back(min.value_or(0), max.value_or(0));
        }
        machine_.clearJournal();
        transport_->enabled = true;  // discovery itself ran without faults
    }

    // `ticks` control ticks of 2 s with the machine's time moving alongside; then the
    // shutdown, after which every fan must be automatic.
    void run(std::uint64_t ticks) {
        for (std::uint64_t i = 0; i < ticks; ++i) {
            disturb();
            checked("tick", [&] { queue_.advance(std::chrono::seconds(2)); });
            machine_.advance(2.0);
            check();
        }
        // A hand-back that fails is skipped (the unit's --release-fans catches it), so the
        // shutdown itself runs without faults.
        transport_->enabled = false;
        machine_.clearFaults();
        checked("shutdown", [&] { queue_.sync([&] { controller_->shutdown("soak"); }); });
        for (std::size_t fan = 0; fan < machine_.fanCount(); ++fan) {
            expect(!machine_.fanManual(fan), fmt::format("fan {} manual after shutdown", fan));
        }
    }

    Counts counts;
    std::vector<std::string> violations;  // each broken invariant, with its tick

  private:
    static constexpr const char *kPath = "/var/lib/dev.ostrel/fan-policies.json";

    template <typename Step>
    void checked(const char *what, Step step) {
        try {
            step();
        } catch (const std::exception &e) {
            expect(false, fmt::format("{} threw: {}", what, e.what()));
        }
    }
    void expect(bool holds, const std::string &what) {
        ++counts["checks"];
        if (!holds && violations.size() < 20) {
            violations.push_back(fmt::format("tick {}: {}", counts["ticks"], what));
        }
    }
    bool chance(double p) { return std::uniform_real_distribution<>(0, 1)(random_) < p; }

    FanPolicy randomPolicy() {
        const FanPolicy policies[] = {
            FanPolicy(),
            FanPolicy::fixed(0),
            FanPolicy::fixed(1500),
            FanPolicy::fixed(INFINITY),
            FanPolicy::curve(FanCurve("45:min,70:3500,90:max", CurveSensor::max)),
            FanPolicy::curve(*FanCurve::preset("balanced"))};
        return policies[random_() % std::size(policies)];
    }

    // What the world does to the daemon before a tick.
    void disturb() {
        if (chance(0.01)) {  // mostly busy, so that fans held low can overheat it
            machine_.setLoad(std::min(1.0, random_() % 4 / 2.0), random_() % 3 / 2.0);
            machine_.setAmbient(static_cast<double>(20 + random_() % 26));
        }
        if (chance(0.01)) {
            files_.setReadOnly(chance(0.2));
            auto fans = static_cast<std::int64_t>(machine_.fanCount());
            std::int64_t fan = std::uniform_int_distribution<std::int64_t>(-1, fans)(random_);
            checked("setPolicy", [&] {
                queue_.sync([&] {
                    try {
                        controller_->setPolicy(randomPolicy(), fan);
                    } catch (const FanControlError &) {
                        ++counts["refused_changes"];  // fan `fans` does not exist
                        return;
                    }
                    ++counts["policy_changes"];
                    bool failed = !log_.empty() && log_.back().starts_with("could not save");
                    counts["failed_saves"] += failed;
                    if (!failed) {
                        saved_ = controller_->policies();
                    }
                });
            });
        }
        for (std::uint32_t key : machine_.vanishedKeys()) {
            if (chance(0.3)) {
                machine_.restoreKey(key);
            }
        }
        if (chance(0.01) && machine_.keys().size() > 1) {
            const vsmc::KeyEntry &entry = machine_.keys().at(random_() % machine_.keys().size());
            counts["vanished_keys"] += machine_.vanishKey(entry.key);
        }
        if (chance(0.01) && machine_.fanCount() > 0) {
            std::size_t fan = random_() % machine_.fanCount();
            counts["bogus_limits"] +=
                machine_.setFanLimits(fan, chance(0.5) ? 9000 : -100, chance(0.5) ? 0 : 1e6);
        } else if (chance(0.05) && machine_.fanCount() > 0) {
            std::size_t fan = random_() % machine_.fanCount();
            machine_.setFanLimits(fan, realLimits_[fan].first, realLimits_[fan].second);
        }
    }

    // The invariants after a tick. The failsafe is judged against temperature streaks kept
    // here from what the tick really read (the journal), not from the engine's counters.
    void check() {
        ++counts["ticks"];
        const FanPolicyEngine &engine = controller_->engine();
        const SafetyLimits &limits = engine.limits();
        double hottest = 0;  // as the engine sees a sample without temperatures
        std::vector<std::pair<std::string, double>> targets;
        for (const vsmc::ExchangeRecord &r : machine_.journal()) {
            std::optional<double> value = decoded(r);
            std::string key = FourCC(r.key).description();
            if (!value || r.result != 0 || r.kern != 0) {
                continue;
            }
            if (r.command == SMC_CMD_READ && essential_.count(r.key) != 0 && *value > 1 &&
                *value < 130) {
                hottest = std::max(hottest, *value);
            } else if (r.command == SMC_CMD_WRITE && key[0] == 'F' && key.substr(2) == "Tg") {
                targets.emplace_back(key, *value);
            }
        }
        machine_.clearJournal();
        if (!engine.isActive()) {
            hotStreak_ = coolStreak_ = 0;
        } else {
            hotStreak_ = hottest >= limits.ceiling ? hotStreak_ + 1 : 0;
            coolStreak_ = hottest < limits.resumeBelow ? coolStreak_ + 1 : 0;
        }
        bool entered = !suspended_ && engine.suspended();
        bool resumed =
            std::any_of(log_.begin() + static_cast<std::ptrdiff_t>(logged_), log_.end(),
                        [](const std::string &line) { return line.starts_with("cooled to "); });
        counts["failsafe_entries"] += entered;
        counts["resumes"] += resumed;
        if (entered) {
            expect(hotStreak_ >= limits.triggerTicks, "failsafe without two hot ticks");
            expect(log_.size() > logged_ && log_[logged_].starts_with("FAILSAFE: "),
                   "failsafe without its line");
        }
        if (resumed) {
            expect(suspended_ && coolStreak_ >= limits.resumeTicks, "resumed too early");
        }
        suspended_ = engine.suspended();
        logged_ = log_.size();
        for (const auto &[key, value] : targets) {
            auto [min, max] = limitsOf(key[1]);
            if (min && max && *min <= *max) {
                expect(value >= *min - 1 && value <= *max + 1,
                       fmt::format("{} = {} outside [{}, {}]", key, value, *min, *max));
                // Full cooling is the true maximum (judged while the limits are true).
                bool real =
                    realLimits_.at(static_cast<std::size_t>(key[1] - '0')) == std::pair(*min, *max);
                expect(!suspended_ || !real || value >= *max - 1,
                       fmt::format("{} = {} below the maximum {} while the failsafe holds", key,
                                   value, *max));
            }
        }
        expect(PolicyStore::load(kPath, files_) == saved_, "policies file is not the last save");
    }

    std::optional<double> decoded(const vsmc::ExchangeRecord &r) const {
        const vsmc::KeyEntry *entry = machine_.keys().find(r.key);
        double value = 0;
        if (entry == nullptr ||
            !smc_decode_double(entry->type, r.bytes.data(),
                               static_cast<std::uint32_t>(r.bytes.size()), &value)) {
            return std::nullopt;
        }
        return value;
    }
    std::pair<std::optional<double>, std::optional<double>> limitsOf(char fan) const {
        std::string prefix = std::string("F") + fan;
        return {machine_.number(smc_fourcc((prefix + "Mn").c_str())),
                machine_.number(smc_fourcc((prefix + "Mx").c_str()))};
    }

    vsmc::Machine machine_;
    std::mt19937_64 random_;
    platform::FakeEnvironment env_;
    platform::FakeClock clock_;
    platform::FakeFiles files_;
    platform::ManualQueue queue_{clock_};
    std::vector<std::string> log_;
    FaultyTransport *transport_ = nullptr;  // owned by the controller's connection
    std::unique_ptr<helper::Controller> controller_;
    std::set<std::uint32_t> essential_;  // the keys of the essential temperatures
    std::vector<std::pair<double, double>> realLimits_;
    PolicyMap saved_;
    bool suspended_ = false;
    std::size_t logged_ = 0;
    std::int64_t hotStreak_ = 0, coolStreak_ = 0;
};

}  // namespace ostrel::soak
