#include "ostrel/policy_store.h"

#include "ostrel/policy_coding.h"

namespace ostrel::PolicyStore {

namespace {

bool valid(const FanPolicy &policy) {
    try {
        policy.validate();
        return true;
    } catch (const FanControlError &) {
        return false;
    }
}

}  // namespace

void save(const PolicyMap &policies, const std::string &path, const platform::Files &files) {
    for (const auto &[fan, policy] : policies) {
        policy.validate();
    }
    files.createDirectories(platform::parentDirectory(path), kDirectoryMode).check();
    files.writeAtomic(path, PolicyCoding::encodeMap(policies), kFileMode).check();
}

PolicyMap load(const std::string &path, const platform::Files &files) noexcept {
    PolicyMap policies;
    try {
        std::optional<std::string> text = files.readAtMost(path, kMaxFileSize);
        if (!text) {
            return {};
        }
        for (auto &[key, policy] : PolicyCoding::decodeMap(*text)) {
            std::optional<std::int64_t> fan = PolicyCoding::fanIndex(key);
            if (fan && valid(policy)) {
                policies.emplace(*fan, std::move(policy));
            }
        }
    } catch (const std::exception &) {
        return {};  // not a policies file as a whole, or no memory for it
    }
    return policies;
}

}  // namespace ostrel::PolicyStore
