// Self-update on fakes: an installed daemon and a newer copy in the package location,
// signed by the team, which prints 1.1.14 when asked. Tests change the files and the
// answer to reach each outcome.
#pragma once

#include "ostrel/helper_self_update.h"
#include "ostrel/platform/environment.h"
#include "support/signing.h"

namespace ostrel::test {

// One team for every rig, so that reasons naming it are constants.
inline const SigningKey &teamKey() {
    static const SigningKey key = SigningKey::generate();
    return key;
}

inline Signer teamSigner() {
    return {teamKey().team(), teamKey().publicKey()};
}

inline platform::ProcessResult printed(std::string output, int exitCode = 0) {
    return {.exitCode = exitCode, .signal = {}, .output = std::move(output), .error = {}};
}

struct SelfUpdateRig {
    static inline const std::string source = "/usr/lib/ostrel/ostrel-helper";
    static inline const std::string destination = "/usr/local/libexec/dev.ostrel.helper";
    static inline const std::string staging = destination + ".new";

    SelfUpdateRig() {
        files.put(destination, "old daemon");
        put(source, &teamKey());
        processes.respond = [this](const platform::ProcessLaunch &) { return answer; };
    }
    // A copy of the daemon at `path`, signed with `key` (ad hoc when null).
    void put(const std::string &path, const SigningKey *key) {
        files.put(path, signedBytes("new daemon", "dev.ostrel.helper", key));
    }
    HelperSelfUpdate::Outcome attempt(const std::string &from = source) {
        return HelperSelfUpdate::update(from, destination, teamSigner(), "1.1.13", services);
    }

    platform::FakeFileAccess files;
    platform::FakeProcesses processes;
    platform::ProcessResult answer = printed("1.1.14\n");
    platform::FakeEnvironment env;
    platform::Paths paths{env};
    HelperSelfUpdate::UpdateServices services{files, processes, paths, 0, 0};
};

}  // namespace ostrel::test
