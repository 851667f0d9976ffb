#include "csmc/transport_registry.h"

#include <mutex>
#include <new>

namespace csmc {

void TransportRegistry::add(std::string scheme, std::string usage, TransportFactory factory) {
    for (Entry &entry : entries_) {
        if (entry.scheme == scheme) {
            entry.usage = std::move(usage);
            entry.factory = std::move(factory);
            return;
        }
    }
    entries_.push_back({std::move(scheme), std::move(usage), std::move(factory)});
}

void TransportRegistry::setDefault(TransportFactory factory) {
    default_ = std::move(factory);
}

std::string TransportRegistry::usages() const {
    std::string text;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        text += i == 0 ? "" : i + 1 == entries_.size() ? " or " : ", ";
        text += entries_[i].usage;
    }
    return text;
}

OpenedTransport TransportRegistry::open(std::string_view selector) const {
    try {
        if (selector.empty()) {
            OpenedTransport opened =
                default_ ? default_("") : OpenedTransport{SMC_ENOSERVICE, nullptr, ""};
            if (opened.status == SMC_ENOSERVICE) {
                // Why the platform's own SMC was not found, and what would do instead.
                opened.detail = "no SMC found" +
                                (opened.detail.empty() ? "" : " (" + opened.detail + ")") +
                                "; set OSTREL_SMC to " + usages();
            }
            return opened;
        }
        std::size_t colon = selector.find(':');
        std::string_view scheme = selector.substr(0, colon);
        std::string_view argument =
            colon == std::string_view::npos ? std::string_view() : selector.substr(colon + 1);
        for (const Entry &entry : entries_) {
            if (entry.scheme == scheme) {
                return entry.factory(argument);
            }
        }
        return {SMC_ENOSERVICE, nullptr,
                "unknown transport \"" + std::string(scheme) +
                    "\" in OSTREL_SMC=" + std::string(selector) + " (expected " + usages() + ")"};
    } catch (const std::bad_alloc &) {
        return {SMC_ENOMEM, nullptr, "out of memory"};
    }
}

namespace {

std::mutex machineLock;
std::shared_ptr<const ProcessMachine> installed;

}  // namespace

void installProcessMachine(ProcessMachine machine) {
    auto shared = std::make_shared<const ProcessMachine>(std::move(machine));
    std::lock_guard guard(machineLock);
    installed = std::move(shared);
}

std::shared_ptr<const ProcessMachine> processMachine() {
    std::lock_guard guard(machineLock);
    return installed;
}

}  // namespace csmc
