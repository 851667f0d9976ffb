#include "self_update_check.h"

#include "ostrel/version.h"

namespace ostrel::helper {

SelfUpdateCheck::SelfUpdateCheck(std::string source, std::string destination, Signer team,
                                 HelperSelfUpdate::UpdateServices services, LogSink log,
                                 std::function<void(const std::string &)> stop)
    : source_(std::move(source)),
      destination_(std::move(destination)),
      team_(std::move(team)),
      services_(services),
      log_(std::move(log)),
      stop_(std::move(stop)) {}

void SelfUpdateCheck::start(platform::Queue &queue) {
    timer_ = queue.repeating(kFirst, kInterval, kLeeway, [this] { check(); });
}

void SelfUpdateCheck::check() {
    using namespace HelperSelfUpdate;
    Outcome outcome = update(source_, destination_, team_, OstrelVersion::string, services_);
    if (auto *updated = std::get_if<Updated>(&outcome)) {
        timer_.reset();
        stop_("updated itself to " + updated->version + " from " + source_);
    } else if (auto *rejected = std::get_if<Rejected>(&outcome)) {
        if (rejected->reason != lastRejection_) {
            log_("self-update skipped: " + rejected->reason);
            lastRejection_ = rejected->reason;
        }
    } else if (!lastRejection_.empty()) {
        log_("self-update: " + source_ + " is current");
        lastRejection_.clear();
    }
}

}  // namespace ostrel::helper
