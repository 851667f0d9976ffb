// What the daemon tells systemd: that it is ready (the unit is Type=notify), that it is
// still alive (WatchdogSec=), and that it is stopping. Outside systemd none of it does
// anything.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ostrel/platform/serial_queue.h"

namespace ostrel::helper {

// Implementations are safe to call from any thread.
class ServiceManager {
  public:
    virtual ~ServiceManager() = default;
    // Sends "READY=1", "WATCHDOG=1" or "STOPPING=1".
    virtual void notify(const std::string &state) = 0;
    // How often the service manager expects WATCHDOG=1, or nothing when it watches none.
    virtual std::optional<std::chrono::microseconds> watchdogInterval() const = 0;
};

// systemd through libsystemd's sd_notify (NOTIFY_SOCKET, WATCHDOG_USEC, WATCHDOG_PID).
std::unique_ptr<ServiceManager> systemdServiceManager();

// Records what was sent; the watchdog interval is whatever the test sets.
class FakeServiceManager final : public ServiceManager {
  public:
    void notify(const std::string &state) override {
        std::lock_guard lock(mutex_);
        sent_.push_back(state);
    }
    std::optional<std::chrono::microseconds> watchdogInterval() const override { return interval; }
    std::vector<std::string> sent() const {
        std::lock_guard lock(mutex_);
        return sent_;
    }

    std::optional<std::chrono::microseconds> interval;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> sent_;
};

// Pings the watchdog from `queue` (the control queue, so that a wedged control loop stops
// the pings and systemd restarts the daemon) at half the interval the manager asks for.
// Nothing when it asks for none. The timer stops with the handle.
std::unique_ptr<platform::Queue::Timer> startWatchdog(ServiceManager &manager,
                                                      platform::Queue &queue);

}  // namespace ostrel::helper
