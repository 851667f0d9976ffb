// The daemon under abuse, from the test or benchmark process itself (signed as the
// command-line program, since it is the daemon's client). Shared by the end-to-end test (a
// short run) and the benchmark (the long one).
//
// SocketAbuse: malformed frames of every kind over many connections, connections held open
// and silent, and clients that never read their replies, while the daemon's resident memory
// and open descriptors are sampled.
//
// killDuringSaves: a client sends a burst of policy changes, each saving the policies, and
// the daemon is killed after a random number of replies, while it works through the rest.
// Whatever the moment, the policies file must hold one whole save, no older than the last
// change acknowledged.
#pragma once

#include <dirent.h>
#include <sys/socket.h>

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "ostrel/json.h"
#include "ostrel/platform/unique_fd.h"
#include "support/daemon_rig.h"
#include "support/io_thread.h"

namespace ostrel::test {

class SocketAbuse {
  public:
    SocketAbuse(std::string socket, pid_t daemon, std::uint64_t seed)
        : socket_(std::move(socket)), daemon_(daemon), random_(seed) {}

    // `count` malformed frames, each on a connection of its own that is closed right after.
    void malformed(int count) {
        for (int i = 0; i < count; ++i) {
            platform::UniqueFd fd(rawSocket(socket_));
            std::string frame = frameOfKind(i % kKinds);
            ::send(fd.get(), frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            ++frames;
            if (i % 100 == 0) {
                sample();
            }
        }
        sample();
    }
    // Opens `count` connections that say nothing and keeps them.
    void holdIdle(int count) {
        for (int i = 0; i < count; ++i) {
            held_.emplace_back(rawSocket(socket_));
        }
        sample();
    }
    // `count` clients that ask for the policies `requests` times each and never read.
    void deafClients(int count, int requests) {
        for (int c = 0; c < count; ++c) {
            held_.emplace_back(rawSocket(socket_));
            for (int i = 0; i < requests; ++i) {
                std::string line = requestLine(i, ControlProtocol::Call::policies);
                ::send(held_.back().get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            }
        }
        sample();
    }
    // The daemon's resident set (KiB) and open descriptors now; the peaks keep the largest.
    void sample() {
        std::ifstream status("/proc/" + std::to_string(daemon_) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:")) {
                peakRssKib = std::max(peakRssKib, std::stol(line.substr(6)));
            }
        }
        long fds = 0;
        if (DIR *dir = ::opendir(("/proc/" + std::to_string(daemon_) + "/fd").c_str())) {
            while (::readdir(dir) != nullptr) {
                ++fds;
            }
            ::closedir(dir);
        }
        peakFds = std::max(peakFds, fds - 2);  // "." and ".."
    }

    long frames = 0;
    long peakRssKib = 0;
    long peakFds = 0;

  private:
    static constexpr int kKinds = 5;

    // Kinds 0 and 1 are random bytes, with and without an end of line; the rest are fixed:
    // a line past the length bound, deep nesting within one, and a request whose fan no
    // integer holds. What else a line may get wrong is the protocol's tests' and fuzzer's.
    std::string frameOfKind(int kind) {
        static const std::string fixed[] = {
            std::string(64 * 1024 + 1, 'x') + "\n",
            std::string(32000, '[') + std::string(32000, ']') + "\n",
            R"({"id":1,"call":"setPolicy","fan":1e300,"policy":"{\"fixed\":{\"rpm\":1234}}"})"
            "\n",
        };
        if (kind >= 2) {
            return fixed[kind - 2];
        }
        std::string bytes(1 + random_() % 512, '\0');
        for (char &c : bytes) {
            c = static_cast<char>(random_() % 256);
        }
        return kind == 0 ? bytes + "\n" : bytes;
    }

    std::string socket_;
    pid_t daemon_;
    std::mt19937_64 random_;
    std::vector<platform::UniqueFd> held_;
};

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
            client.send(setPolicyLine(sent, 0, fmt::format(R"({{"fixed":{{"rpm":{}}}}})", sent)));
        }
        for (auto replies = random() % kBurst; replies > 0; --replies) {
            if (std::optional<std::string> reply = client.reply()) {
                acknowledged = std::max(acknowledged, Json::parse(*reply)["id"].get<long>());
            }
        }
        rig.helper().signal(SIGKILL);
        rig.helper().wait();
        std::string text = fileBytes(rig.policiesPath());
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
