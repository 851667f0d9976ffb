// The daemon as it really runs, for end-to-end tests and benchmarks: a temporary
// OSTREL_ROOT, a virtual Mac (ostrel-vsmc) on a socket inside it, and ostrel-helper
// started from its installed path inside it against that machine, its standard error
// appended to the sandbox's log file. Everything is killed when the rig goes away.
//
// The including target defines OSTREL_HELPER_PROGRAM, OSTREL_VSMC_PROGRAM,
// OSTREL_CONTROL_CLIENT and OSTREL_UNSIGNED_CLIENT (paths of the built programs).
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ostrel/code_signature.h"
#include "ostrel/json.h"
#include "ostrel/platform/clock.h"
#include "ostrel/platform/process.h"
#include "support/background_process.h"
#include "support/signing.h"
#include "support/temp_dir.h"

namespace ostrel::test {

class DaemonRig {
  public:
    // Starts the virtual Mac (paused: simulated time moves only by `advance`) and installs
    // the daemon, re-signed with `team` when one is given.
    explicit DaemonRig(const std::string &profile = "macbookpro16-1",
                       const SigningKey *team = nullptr) {
        std::filesystem::create_directories(root_.path() + "/run");
        std::filesystem::create_directories(std::filesystem::path(helperPath()).parent_path());
        std::filesystem::create_directories(std::filesystem::path(logPath()).parent_path());
        vsmc_ = std::make_unique<BackgroundProcess>(
            OSTREL_VSMC_PROGRAM,
            std::vector<std::string>{"--profile", profile, "--socket", vsmcSocket(), "--speed",
                                     "0"},
            std::map<std::string, std::string>{}, root_.path() + "/vsmc.log");
        if (!waitInDirectory(root_.path() + "/run", [&] { return isSocket(vsmcSocket()); })) {
            throw std::runtime_error("the virtual Mac did not start: " +
                                     fileBytes(root_.path() + "/vsmc.log"));
        }
        install(helperPath(), team);
    }

    const std::string &root() const { return root_.path(); }
    std::string vsmcSocket() const { return root_.path() + "/run/dev.ostrel.vsmc.sock"; }
    std::string socket() const { return root_.path() + "/run/dev.ostrel.helper.sock"; }
    std::string helperPath() const { return root_.path() + "/usr/local/libexec/dev.ostrel.helper"; }
    std::string logPath() const { return root_.path() + "/var/log/dev.ostrel.helper.log"; }
    std::string policiesPath() const {
        return root_.path() + "/var/lib/dev.ostrel/fan-policies.json";
    }
    std::map<std::string, std::string> environment() const {
        return {{"OSTREL_ROOT", root_.path()}, {"OSTREL_SMC", "vsmc:" + vsmcSocket()}};
    }

    // A copy of the built daemon at `path` (mode 0755), signed ad hoc as the build does, or
    // with `team`'s key.
    static void install(const std::string &path, const SigningKey *team) {
        std::string bytes = fileBytes(OSTREL_HELPER_PROGRAM);
        if (team != nullptr) {
            SignatureInfo info = verifyFile(OSTREL_HELPER_PROGRAM, platform::realFileAccess());
            bytes = signedBytes(bytes.substr(0, info.contentSize), "dev.ostrel.helper", team);
        }
        writeExecutable(path, bytes);
    }

    // Starts the daemon with `args` and waits until it answers on its socket (or has
    // exited). Returns the process.
    BackgroundProcess &start(const std::vector<std::string> &args = {}) {
        helper_ = std::make_unique<BackgroundProcess>(helperPath(), args, environment(), logPath());
        waitInDirectory(root_.path() + "/run",
                        [&] { return isSocket(socket()) || !helper_->running(); });
        if (helper_->running()) {
            client({R"({"id":0,"call":"version"})"});  // served once the daemon is up
        }
        return *helper_;
    }
    BackgroundProcess &helper() { return *helper_; }

    // The log's messages, without their time stamps.
    std::vector<std::string> log() const {
        std::vector<std::string> messages;
        std::istringstream in(fileBytes(logPath()));
        const std::string mark = " ostrel-helper: ";
        for (std::string line; std::getline(in, line);) {
            std::size_t at = line.find(mark);
            messages.push_back(at == std::string::npos ? line : line.substr(at + mark.size()));
        }
        return messages;
    }

    // Sends `lines` with the signed test client (or the unsigned one) and returns its run.
    platform::ProcessResult client(const std::vector<std::string> &lines,
                                   bool signedClient = true) {
        platform::ProcessLaunch launch;
        launch.program = signedClient ? OSTREL_CONTROL_CLIENT : OSTREL_UNSIGNED_CLIENT;
        launch.args = {socket()};
        launch.args.insert(launch.args.end(), lines.begin(), lines.end());
        launch.timeout = std::chrono::seconds(30);
        return processes_->run(launch);
    }

    // `ostrel-vsmc ctl ARGS` on the virtual Mac; its standard output.
    std::string ctl(const std::vector<std::string> &args) {
        platform::ProcessLaunch launch;
        launch.program = OSTREL_VSMC_PROGRAM;
        launch.args = {"ctl", "--socket", vsmcSocket()};
        launch.args.insert(launch.args.end(), args.begin(), args.end());
        launch.timeout = std::chrono::seconds(30);
        platform::ProcessResult result = processes_->run(launch);
        if (!result.succeeded()) {
            throw std::runtime_error("ostrel-vsmc ctl failed: " + result.error);
        }
        return result.output;
    }
    // The virtual Mac's true state (docs/vsmc-protocol.md).
    Json status() { return Json::parse(ctl({"status", "--json"})); }
    // Whether any fan is under manual control.
    bool anyFanManual() {
        Json state = status();  // alive for the loop, not just its first call
        for (const Json &fan : state["fans"]) {
            if (fan["mode"] == "manual") {
                return true;
            }
        }
        return false;
    }

    static bool isSocket(const std::string &path) {
        struct stat st {};
        return ::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
    }

  private:
    TempDir root_;
    std::unique_ptr<platform::Processes> processes_ =
        platform::realProcesses(platform::realClock());
    std::unique_ptr<BackgroundProcess> vsmc_;
    std::unique_ptr<BackgroundProcess> helper_;
};

}  // namespace ostrel::test
