// The daemon as it really runs, for end-to-end tests and benchmarks: a temporary
// OSTREL_ROOT, a virtual Mac (ostrel-vsmc) on a socket inside it, and ostrel-helper
// started from its installed path inside it against that machine, its standard error
// appended to the sandbox's log file. Everything is killed when the rig goes away.
//
// The including target defines OSTREL_HELPER_PROGRAM, OSTREL_VSMC_PROGRAM and
// OSTREL_CLI_PROGRAM (paths of the built programs), and is itself signed as the
// command-line program, since it talks to the daemon as its client.
#pragma once

#include <algorithm>
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
#include "support/line_client.h"
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
        if (!waitInDirectory(root_.path() + "/run",
                             [&] { return std::filesystem::is_socket(vsmcSocket()); })) {
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
        writeExecutable(path, team == nullptr ? fileBytes(OSTREL_HELPER_PROGRAM)
                                              : signedBytes(unsignedBytes(OSTREL_HELPER_PROGRAM),
                                                            "dev.ostrel.helper", team));
    }
    // The built program at `path` without the signature the build gave it.
    static std::string unsignedBytes(const std::string &path) {
        SignatureInfo info = verifyFile(path, platform::realFileAccess());
        return fileBytes(path).substr(0, info.contentSize);
    }

    // Starts the daemon with `args` and waits until it answers on its socket (or has
    // exited).
    void start(const std::vector<std::string> &args = {}) {
        helper_ = std::make_unique<BackgroundProcess>(helperPath(), args, environment(), logPath());
        // The socket file may be a stopped daemon's, and appears when the socket is bound, a
        // moment before the daemon listens: try at each change in the directory, and a while
        // after it. Up is a request answered, or refused by vetting (a daemon of another team).
        waitInDirectory(root_.path() + "/run", [&] {
            for (int i = 0; i < 1000 && helper_->running(); ++i) {
                if (LineClient ping(socket()); ping.connected()) {
                    ping.send(requestLine(0, ControlProtocol::Call::version));
                    ping.reply();
                    return true;
                }
            }
            return !helper_->running();
        });
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

    // Sends `line` (with its newline) from this process on a connection of its own and
    // returns the reply; nothing when the daemon closed the connection.
    std::optional<std::string> client(const std::string &line) {
        LineClient connection(socket());
        connection.send(line);
        return connection.reply();
    }

    // `ostrel ARGS` in the sandbox, its standard output and error captured: the built
    // program, or a copy without its signature (which the daemon must refuse).
    platform::ProcessResult ostrel(const std::vector<std::string> &args, bool signedCopy = true) {
        std::string program = OSTREL_CLI_PROGRAM;
        if (!signedCopy) {
            program = root_.path() + "/unsigned/ostrel";
            if (!std::filesystem::exists(program)) {
                std::filesystem::create_directories(root_.path() + "/unsigned");
                writeExecutable(program, unsignedBytes(OSTREL_CLI_PROGRAM));
            }
        }
        std::map<std::string, std::string> env = environment();
        env["XDG_CACHE_HOME"] = root_.path() + "/cache";
        return run(withEnvironment(env, program, args));
    }

    // `ostrel-vsmc ctl ARGS` on the virtual Mac; its standard output.
    std::string ctl(const std::vector<std::string> &args) {
        std::vector<std::string> argv = {OSTREL_VSMC_PROGRAM, "ctl", "--socket", vsmcSocket()};
        argv.insert(argv.end(), args.begin(), args.end());
        platform::ProcessResult result = run(argv);
        if (!result.succeeded()) {
            throw std::runtime_error("ostrel-vsmc ctl failed: " + result.error);
        }
        return result.output;
    }
    // The virtual Mac's true state (docs/vsmc-protocol.md).
    Json status() { return Json::parse(ctl({"status", "--json"})); }
    bool anyFanManual() {
        return std::ranges::any_of(status()["fans"],
                                   [](const Json &fan) { return fan["mode"] == "manual"; });
    }

  private:
    // ARGV run to its end (30 s at most), its standard output and error captured.
    platform::ProcessResult run(const std::vector<std::string> &argv) {
        platform::ProcessLaunch launch;
        launch.program = argv.front();
        launch.args.assign(argv.begin() + 1, argv.end());
        launch.error = platform::Stream::capture;
        launch.timeout = std::chrono::seconds(30);
        return processes_->run(launch);
    }

    TempDir root_;
    std::unique_ptr<platform::Processes> processes_ =
        platform::realProcesses(platform::realClock());
    std::unique_ptr<BackgroundProcess> vsmc_;
    std::unique_ptr<BackgroundProcess> helper_;
};

}  // namespace ostrel::test
