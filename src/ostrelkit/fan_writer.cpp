#include "ostrel/fan_writer.h"

#include <fmt/format.h>

#include <cmath>

#include "csmc/keys.h"
#include "ostrel/number_text.h"
#include "ostrel/platform/numbers.h"

namespace ostrel {

namespace {

const FourCC kForceKey(csmc::kForceMaskKey);
const FourCC kTestKey(csmc::kTestKey);

}  // namespace

FanWriter::FanWriter(std::shared_ptr<SMC> smc, Discovery discovery, platform::Clock &clock)
    : smc_(std::move(smc)), discovery_(std::move(discovery)), clock_(clock) {
    for (const FanDescriptor &fan : discovery_.fans) {
        if (!fan.hasModeKey) {
            continue;
        }
        try {
            double mode = smc_->readDouble(fan.modeKey());
            // A fan found in manual mode (left by a crashed controller, say) goes back to
            // automatic, not to manual.
            originalMode_[fan.index] = mode == 1 ? 0 : mode;
        } catch (const SMCError &) {
        }
    }
}

const FanDescriptor &FanWriter::fan(std::int64_t index) const {
    for (const FanDescriptor &fan : discovery_.fans) {
        if (fan.index == index) {
            return fan;
        }
    }
    throw FanControlError::noSuchFan(index);
}

std::pair<double, double> FanWriter::limits(std::int64_t index) {
    const FanDescriptor &f = fan(index);
    double min = smc_->readDouble(f.minKey());
    double max = smc_->readDouble(f.maxKey());
    return {min, max};
}

std::optional<bool> FanWriter::isManual(std::int64_t index) {
    const FanDescriptor &f = fan(index);
    try {
        if (f.hasModeKey) {
            return smc_->readDouble(f.modeKey()) == 1.0;
        }
        if (discovery_.fanForceKey && index >= 0 && index < 64) {
            std::optional<std::int64_t> bits = numbers::truncatedInt64(smc_->readDouble(kForceKey));
            if (bits) {
                return ((static_cast<std::uint64_t>(*bits) >> index) & 1u) != 0;
            }
        }
    } catch (const SMCError &) {
    }
    return std::nullopt;
}

void FanWriter::updateForceMask(std::int64_t index, bool manual) {
    double raw = smc_->readDouble(kForceKey);
    // Only a finite number inside the 64-bit range is a mask; anything else is a machine
    // we do not understand, and guessing bits there could force the wrong fans.
    std::optional<std::int64_t> bits = numbers::truncatedInt64(raw);
    if (!bits) {
        throw FanControlError::helper(fmt::format(
            "SMC key 'FS! ' does not hold a fan bit mask (it reads {})", numberText(raw)));
    }
    auto mask = static_cast<std::uint64_t>(*bits);
    if (index >= 0 && index < 64) {
        std::uint64_t bit = std::uint64_t{1} << index;
        mask = manual ? (mask | bit) : (mask & ~bit);
    }
    smc_->write(kForceKey, static_cast<double>(static_cast<std::int64_t>(mask)));
}

double FanWriter::setManual(std::int64_t index, double rpm) {
    const FanDescriptor &f = fan(index);
    auto [min, max] = limits(index);
    double target = resolveSpeed(rpm, min, max);

    if (discovery_.fanTestKey && !unlocked_) {
        smc_->write(kTestKey, 1.0);
        unlocked_ = true;
    }
    if (f.hasModeKey) {
        // After the test key is set the firmware refuses mode writes for a few seconds;
        // without a test key a refusal is final.
        for (int attempt = 1;; ++attempt) {
            try {
                smc_->write(f.modeKey(), 1.0);
                break;
            } catch (const SMCError &) {
                if (!discovery_.fanTestKey || attempt == kModeAttempts) {
                    throw;
                }
                clock_.sleepFor(kModePause);
            }
        }
    } else if (discovery_.fanForceKey) {
        updateForceMask(index, true);
    }
    smc_->write(f.targetKey(), target);
    return target;
}

void FanWriter::handBack(const FanDescriptor &fan) {
    if (fan.hasModeKey) {
        double mode = 0;
        if (!discovery_.fanTestKey) {
            auto it = originalMode_.find(fan.index);
            mode = it == originalMode_.end() ? 0 : it->second;
        }
        smc_->write(fan.modeKey(), mode);
    } else if (discovery_.fanForceKey) {
        updateForceMask(fan.index, false);
    }
}

void FanWriter::setAuto(std::int64_t index) {
    handBack(fan(index));
}

void FanWriter::setAllAuto() noexcept {
    for (const FanDescriptor &fan : discovery_.fans) {
        try {
            handBack(fan);
        } catch (const std::exception &) {
            // One fan that cannot be handed back must not keep the others manual.
        }
    }
    if (discovery_.fanTestKey) {
        try {
            smc_->write(kTestKey, 0.0);
        } catch (const std::exception &) {
        }
        unlocked_ = false;
    }
}

}  // namespace ostrel
