// The fan writer: the only code that changes fan settings in the SMC.
//
// It takes a fan out of firmware control at a target speed and hands fans back, on the
// three kinds of machines discovery tells apart: a mode key per fan (FnMd), a shared force
// bit mask ("FS! "), and machines whose mode writes are honoured only after the test key
// ("Ftst") has been set to 1 for a while.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "ostrel/discovery.h"
#include "ostrel/fan_policy.h"
#include "ostrel/platform/clock.h"
#include "ostrel/smc.h"

namespace ostrel {

class FanWriter {
  public:
    // Mode writes on test-key machines are tried this often, pausing between attempts.
    static constexpr int kModeAttempts = 50;
    static constexpr std::chrono::milliseconds kModePause{100};

    // Records each fan's starting mode (a manual 1 is remembered as 0). Never fails.
    // `clock` provides the pauses between mode-write attempts and must outlive the writer.
    FanWriter(std::shared_ptr<SMC> smc, Discovery discovery, platform::Clock &clock);

    // The discovered fan with this index; throws FanControlError::noSuchFan.
    const FanDescriptor &fan(std::int64_t index) const;
    // The fan's (min, max) in rpm. Throws noSuchFan or SMCError.
    std::pair<double, double> limits(std::int64_t index);

    // Puts the fan under manual control at `rpm` clamped into its limits (+infinity is its
    // maximum) and returns the speed written. On test-key machines this may block for up to
    // 49 pauses of 100 ms while the firmware refuses mode writes. Throws noSuchFan, SMCError,
    // or FanControlError::helper when the force mask holds no usable bit mask. Writes made
    // before a failure stay made.
    double setManual(std::int64_t index, double rpm);
    // Hands the fan back to the firmware. Throws like setManual; never touches the target
    // or the test key.
    void setAuto(std::int64_t index);
    // Hands every fan back, skipping those that fail, then resets the test key. Never throws.
    void setAllAuto() noexcept;

    // Whether the fan is under manual control now, read from its mode key or the force
    // mask; nothing when that cannot be read. Throws noSuchFan only.
    std::optional<bool> isManual(std::int64_t index);
    // The firmware cleared the test key behind the writer's back (a resume from sleep, a
    // takeover): the next setManual sets it again.
    void forgetUnlock() { unlocked_ = false; }
    bool unlocked() const { return unlocked_; }
    const std::map<std::int64_t, double> &originalMode() const { return originalMode_; }
    const Discovery &discovery() const { return discovery_; }

  private:
    // Sets or clears the fan's bit in the force mask by read-modify-write.
    void updateForceMask(std::int64_t index, bool manual);
    void handBack(const FanDescriptor &fan);

    std::shared_ptr<SMC> smc_;
    Discovery discovery_;
    platform::Clock &clock_;
    bool unlocked_ = false;
    std::map<std::int64_t, double> originalMode_;
};

}  // namespace ostrel
