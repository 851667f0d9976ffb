// The daemon's periodic self-update check: with `--source PATH` and a signing team of its
// own, the daemon tries HelperSelfUpdate::update 5 s after start and then every 30 s, logs
// each distinct rejection once, and stops after an update so that systemd starts the new
// executable.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "log.h"
#include "ostrel/helper_self_update.h"
#include "ostrel/platform/serial_queue.h"

namespace ostrel::helper {

class SelfUpdateCheck {
  public:
    static constexpr std::chrono::seconds kFirst{5};
    static constexpr std::chrono::seconds kInterval{30};
    static constexpr std::chrono::seconds kLeeway{5};

    // `stop` ends the daemon with a reason. `services`' references, `log` and `stop` must
    // outlive the check.
    SelfUpdateCheck(std::string source, std::string destination, Signer team,
                    HelperSelfUpdate::UpdateServices services, LogSink log,
                    std::function<void(const std::string &reason)> stop);

    // Arms the timer on `queue` (the main loop): first check after kFirst, then every
    // kInterval. Once.
    void start(platform::Queue &queue);

    // One attempt, on the queue: "updated itself to V from SRC" stops the daemon; a
    // rejection is logged as "self-update skipped: REASON" unless it is the reason logged
    // last; an unchanged source after a rejection logs "self-update: SRC is current".
    void check();

  private:
    std::string source_, destination_;
    Signer team_;
    HelperSelfUpdate::UpdateServices services_;
    LogSink log_;
    std::function<void(const std::string &)> stop_;
    std::string lastRejection_;  // empty while none is standing
    std::unique_ptr<platform::Queue::Timer> timer_;
};

}  // namespace ostrel::helper
