#include "service_manager.h"

#include <systemd/sd-daemon.h>

namespace ostrel::helper {

namespace {

class Systemd final : public ServiceManager {
  public:
    void notify(const std::string &state) override {
        // 0 without NOTIFY_SOCKET; a failure to reach systemd changes nothing we could do.
        sd_notify(0, state.c_str());
    }
    std::optional<std::chrono::microseconds> watchdogInterval() const override {
        std::uint64_t usec = 0;
        if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0) {
            return std::nullopt;
        }
        return std::chrono::microseconds(usec);
    }
};

}  // namespace

std::unique_ptr<ServiceManager> systemdServiceManager() {
    return std::make_unique<Systemd>();
}

std::unique_ptr<platform::Queue::Timer> startWatchdog(ServiceManager &manager,
                                                      platform::Queue &queue) {
    std::optional<std::chrono::microseconds> interval = manager.watchdogInterval();
    if (!interval) {
        return nullptr;
    }
    auto half = *interval / 2;
    return queue.repeating(half, half, half / 10, [&manager] { manager.notify("WATCHDOG=1"); });
}

}  // namespace ostrel::helper
