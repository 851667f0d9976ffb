// SIGKILL during saves: a client sends the daemon a burst of policy changes, each saving
// the policies, and the daemon is killed after a random number of replies, while it works
// through the rest. Whatever the moment, the policies file must hold one whole save, no
// older than the last change acknowledged. Shared by the end-to-end test (a few kills) and
// the benchmark (a thousand). The calling process must be signed as the command-line
// program, since it is the daemon's client.
#pragma once

#include <fmt/format.h>

#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "ostrel/json.h"
#include "support/daemon_rig.h"
#include "support/line_client.h"

namespace ostrel::test {

// Kills the daemon `kills` times (restarting it each time) and returns what was wrong with
// the policies file after each kill, if anything.
inline std::vector<std::string> killDuringSaves(DaemonRig &rig, int kills, std::uint64_t seed) {
    constexpr int kBurst = 8;
    const std::regex whole(R"(\{"0":\{"fixed":\{"rpm":([0-9]+)\}\}\})");
    std::mt19937_64 random(seed);
    std::vector<std::string> problems;
    long sent = 0, acknowledged = -1;
    for (int kill = 0; kill < kills; ++kill) {
        std::filesystem::remove(rig.socket());  // as a fresh runtime directory would be
        rig.start();
        LineClient client(rig.socket());
        for (int i = 0; i < kBurst; ++i) {
            ++sent;
            client.send(fmt::format(
                R"({{"id":{},"call":"setPolicy","fan":0,"policy":"{{\"fixed\":{{\"rpm\":{}}}}}"}})"
                "\n",
                sent, sent));
        }
        for (auto replies = random() % kBurst; replies > 0; --replies) {
            if (std::optional<std::string> reply = client.reply()) {
                acknowledged = std::max(acknowledged, Json::parse(*reply)["id"].get<long>());
            }
        }
        rig.helper().signal(SIGKILL);
        rig.helper().wait();
        std::string text =
            std::filesystem::exists(rig.policiesPath()) ? fileBytes(rig.policiesPath()) : "";
        std::smatch rpm;
        if (!std::regex_match(text, rpm, whole)) {
            if (acknowledged >= 0 || !text.empty()) {
                problems.push_back(fmt::format("kill {}: the file holds '{}'", kill, text));
            }
        } else if (std::stol(rpm[1]) < acknowledged || std::stol(rpm[1]) > sent) {
            problems.push_back(fmt::format("kill {}: the file holds {} rpm, acknowledged {}", kill,
                                           std::stol(rpm[1]), acknowledged));
        }
    }
    return problems;
}

}  // namespace ostrel::test
