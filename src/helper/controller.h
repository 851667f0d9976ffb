// The fan controller: the daemon's single owner of fan state. It holds the sampler, the fan
// writer and the policy engine, runs the control loop every 2 s, applies the policy
// changes clients ask for, stores them, and hands every fan back to the firmware when the
// daemon stops.
//
// Threads: everything it owns is touched on its serial queue only, so it takes no lock.
// start() is called once from another thread (the daemon's main thread); tick(),
// setPolicy() and shutdown() run on the queue: the control timer calls tick() there, the
// control service queues requests with queue().async(...), and the main thread stops the
// daemon with queue().sync([&] { controller.shutdown(reason); }). Called anywhere else they
// throw std::logic_error.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "log.h"
#include "ostrel/fan_writer.h"
#include "ostrel/platform/serial_queue.h"
#include "ostrel/policy_engine.h"
#include "ostrel/sampler.h"

namespace ostrel::helper {

// What the controller takes from its creator. Every reference must outlive the controller.
struct ControllerServices {
    platform::Queue &queue;  // "dev.ostrel.helper.control" in the daemon
    // The sampler's environment and files, and the clock of its fan-limit refresh and of
    // the writer's pauses.
    SystemAccess system;
    const platform::Files &files;                   // where the policies are stored
    std::string policiesPath;                       // HelperConstants::policiesFile
    LogSink log;                                    // standardErrorLog in the daemon
    std::function<std::shared_ptr<SMC>()> openSMC;  // opens the connection; throws SMCError
};

class Controller {
  public:
    static constexpr std::chrono::seconds kTickInterval{2};  // also the first tick's delay
    static constexpr std::chrono::milliseconds kTickLeeway{200};
    static constexpr double kMinimumChange = 50;     // rpm; smaller changes are not written
    static constexpr double kLargestDecrease = 400;  // rpm per tick
    static constexpr double kFanLimitRefresh = 10;   // seconds between reads of fan limits
    // The boot clock running this much further than the monotonic clock between two ticks
    // means the machine slept in between.
    static constexpr std::chrono::seconds kSleepGap{5};

    // Opens the SMC, discovers the hardware afresh (never from the cache file) and builds
    // the sampler (essential sensors, temperatures and fans), the writer and the engine
    // (safety limits for Apple silicon when the machine has the test key, else Intel).
    // Throws SMCError when the connection cannot be opened or the key count not read;
    // nothing is touched then.
    explicit Controller(ControllerServices services);
    // Stops the control timer (waiting for a tick in progress when called off the queue).
    ~Controller();
    Controller(const Controller &) = delete;
    Controller &operator=(const Controller &) = delete;

    // On the queue, and waiting for it: hands every fan to the firmware, logs the start
    // line, restores the stored policies of fans that exist, and arms the control timer
    // (first tick after 2 s, then every 2 s, leeway 200 ms). Once, from a thread other than
    // the queue's; a second call throws std::logic_error.
    void start();

    // One control step; nothing at all (no SMC access) while no policy is active or after
    // shutdown. Failures are logged, never thrown. It heals what happened behind the
    // daemon's back: a fan it drives that reads automatic, or whose target is 50 rpm or more
    // off what was written, is written again this tick ("fan N: firmware took control
    // back; re-applying", once per event); after a sleep (the boot clock ran more than
    // kSleepGap ahead of the monotonic one since the last tick) every fan is written again
    // with fresh limits and the test key set anew ("resumed after N s asleep; re-applying
    // fan policies"). A fan whose limits fail to read (the sample's 0 and 0) keeps those it
    // was last seen with, or sits the tick out, and its limits are read again next tick:
    // resolved against 0 every speed would be the fan's minimum, even at full cooling.
    void tick();

    // Validates `policy`, sets it for `fan` (-1: every discovered fan), hands a fan set to
    // auto back at once, logs the change and saves the policies (a failed save is logged;
    // the policy stays in force). Throws FanControlError before changing anything: helper
    // "invalid fan speed", the curve's badCurve, or noSuchFan.
    void setPolicy(const FanPolicy &policy, std::int64_t fan);

    // Cancels the control timer, hands every fan back and logs "<reason>; fans returned to
    // auto". Afterwards ticks do nothing, so no tick queued meanwhile touches the fans.
    void shutdown(const std::string &reason);

    platform::Queue &queue() { return queue_; }
    // The current policies (fans on auto have none), for the control service. On the queue.
    const PolicyMap &policies() const { return engine_.policies(); }
    const FanPolicyEngine &engine() const { return engine_; }
    const Discovery &discovery() const { return sampler_->discovery(); }

  private:
    void requireQueue(const char *operation) const;
    void apply(const FanPolicyEngine::Action &action);
    void writeManual(std::int64_t fan, double rpm);
    void noticeSleep();
    void reclaimFans(const Snapshot &snapshot);
    Snapshot withKnownLimits(Snapshot snapshot);
    bool hasFan(std::int64_t fan) const;

    platform::Queue &queue_;
    ControllerServices services_;
    std::unique_ptr<Sampler> sampler_;
    std::unique_ptr<FanWriter> writer_;
    FanPolicyEngine engine_;
    std::map<std::int64_t, double> written_;
    std::unique_ptr<platform::Queue::Timer> timer_;
    // Each fan's limits as last read whole, standing in for limits that fail to read.
    std::map<std::int64_t, std::pair<double, double>> knownLimits_;
    // The clocks at the last tick, to tell a sleep from a pause.
    std::optional<std::pair<platform::Clock::Monotonic, std::chrono::nanoseconds>> lastTick_;
    bool started_ = false;
    bool stopped_ = false;
};

}  // namespace ostrel::helper
