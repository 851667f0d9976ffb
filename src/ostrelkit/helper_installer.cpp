#include "ostrel/helper_installer.h"
#include "ostrel/helper_self_update.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <vector>

#include <fmt/format.h>

#include "ostrel/fan_policy.h"
#include "ostrel/helper_constants.h"
#include "ostrel/platform/text.h"

namespace ostrel {

namespace {

// Where Debian keeps the programs the scripts run (moved into the sandbox by Paths).
constexpr std::string_view kShell = "/bin/sh";
constexpr std::string_view kPkexec = "/usr/bin/pkexec";
constexpr std::string_view kSystemctl = "/bin/systemctl";
constexpr std::string_view kMkdir = "/bin/mkdir";
constexpr std::string_view kInstall = "/usr/bin/install";
constexpr std::string_view kRm = "/bin/rm";

// pkexec's status when the user dismissed the prompt.
constexpr int kDismissed = 126;

std::string joined(const std::vector<std::string> &commands, std::string_view separator) {
    std::string out;
    for (const std::string &command : commands) {
        out += out.empty() ? "" : separator;
        out += command;
    }
    return out;
}

// How a value is written into the unit: systemd expands specifiers (%) in all of them,
// splits lists and command lines at blanks unless quoted, and expands variables ($) and C
// escapes in command lines only.
enum class UnitValue { commandLine, pathList, path };

std::string unitValue(std::string_view text, UnitValue kind) {
    bool quoted = kind != UnitValue::path;
    std::string out = quoted ? "\"" : "";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (quoted && (c == '\\' || c == '"')) {
            out += '\\';
            out += c;
        } else if (c == '%' || (c == '$' && kind == UnitValue::commandLine)) {
            out += c;
            out += c;
        } else if (kind == UnitValue::commandLine && (byte < 0x20 || byte == 0x7f)) {
            std::array<char, 5> hex{};
            std::snprintf(hex.data(), hex.size(), "\\x%02x", byte);
            out += hex.data();
        } else {
            out += c;
        }
    }
    return quoted ? out + "\"" : out;
}

std::string withoutTrailingSpace(std::string text) {
    while (!text.empty() && std::string_view(" \t\r\n").find(text.back()) != std::string::npos) {
        text.pop_back();
    }
    return text;
}

}  // namespace

std::string shellQuote(std::string_view text) {
    std::string out = "'";
    for (char c : text) {
        out += c == '\'' ? std::string_view("'\\''") : std::string_view(&c, 1);
    }
    return out + "'";
}

std::string systemdQuote(std::string_view text) {
    return unitValue(text, UnitValue::commandLine);
}

bool HelperInstaller::isExecutableFile(const std::string &path) const {
    platform::StatusResult found = services_.fileAccess->stat(path);
    return found.error == 0 && found.status.regular() && (found.status.mode & 0111) != 0;
}

bool HelperInstaller::isInstalled() const {
    for (const std::string &path : {HelperConstants::installedBinary(*services_.paths),
                                    HelperConstants::serviceUnit(*services_.paths)}) {
        platform::StatusResult found = services_.fileAccess->stat(path);
        if (found.error != 0 || !found.status.regular()) {
            return false;
        }
    }
    return true;
}

std::optional<std::string> HelperInstaller::locateHelperBinary() const {
    const std::string name(executableName);
    std::vector<std::string> candidates;
    // The kernel's link is the running program with every symbolic link resolved.
    platform::TextResult self = services_.fileAccess->readLink("/proc/self/exe");
    if (self.error == 0 && self.text.starts_with('/')) {
        std::string directory = platform::parentDirectory(self.text);
        candidates.push_back(directory + "/" + name);
        candidates.push_back(platform::parentDirectory(directory) + "/lib/ostrel/" + name);
    }
    candidates.push_back(system("/usr/lib/ostrel/") + name);
    candidates.push_back(system("/opt/ostrel/") + name);
    std::string home = services_.environment->get("HOME").value_or("");
    if (home.starts_with('/')) {
        candidates.push_back(home + "/.local/lib/ostrel/" + name);
    }
    for (const std::string &candidate : candidates) {
        if (isExecutableFile(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::string HelperInstaller::unitText(const std::string &binary,
                                      const std::optional<std::string> &source) const {
    const platform::Paths &paths = *services_.paths;
    std::string start = systemdQuote(binary);
    if (source) {
        start += " " + systemdQuote("--source") + " " + systemdQuote(*source);
    }
    // The daemon writes its socket and the applesmc lock in /run, the policies in its
    // state directory, and its own executable when it updates itself.
    std::string writable = unitValue(paths.runDirectory(), UnitValue::pathList) + " " +
                           unitValue(platform::parentDirectory(binary), UnitValue::pathList);
    return fmt::format(
        R"([Unit]
Description=Ostrel fan control daemon
Documentation=man:ostrel-helper(8) man:ostrel(1)

[Service]
Type=notify
ExecStart={start}
ExecStopPost={stop}
Restart=always
RestartSec=2
WatchdogSec=30
StandardError=append:{log}
StateDirectory=dev.ostrel
ReadWritePaths={writable}
ProtectSystem=strict
ProtectHome=read-only
PrivateTmp=yes
PrivateMounts=yes
PrivateDevices=yes
PrivateNetwork=yes
IPAddressDeny=any
NoNewPrivileges=yes
CapabilityBoundingSet=CAP_SYS_PTRACE CAP_DAC_READ_SEARCH
RestrictAddressFamilies=AF_UNIX
RestrictNamespaces=yes
RestrictRealtime=yes
RestrictSUIDSGID=yes
LockPersonality=yes
MemoryDenyWriteExecute=yes
ProtectClock=yes
ProtectControlGroups=yes
ProtectHostname=yes
ProtectKernelLogs=yes
ProtectKernelModules=yes
ProtectProc=invisible
ProcSubset=pid
RemoveIPC=yes
SystemCallArchitectures=native
SystemCallFilter=@system-service
SystemCallFilter=~@resources
SystemCallErrorNumber=EPERM
UMask=0077

[Install]
WantedBy=multi-user.target
)",
        fmt::arg("start", start),
        fmt::arg("stop", systemdQuote(binary) + " " + systemdQuote("--release-fans")),
        fmt::arg("log", unitValue(HelperConstants::logFile(paths), UnitValue::path)),
        fmt::arg("writable", writable));
}

void HelperInstaller::install(const std::string &from) const {
    const platform::Paths &paths = *services_.paths;
    if (!isExecutableFile(from)) {
        throw FanControlError::helper(from + " is not an executable file");
    }
    // Recorded in the unit only when self-update would accept it, so the daemon never
    // checks a source it must refuse.
    std::optional<std::string> source =
        HelperSelfUpdate::acceptableSource(from, paths, *services_.fileAccess);
    std::string temp = services_.environment->get("TMPDIR").value_or("");
    if (!temp.starts_with('/')) {
        temp = "/tmp";
    }
    std::string staging = temp + "/" + std::string(HelperConstants::label) + "." +
                          std::to_string(services_.self.processId) + ".service";
    std::string binary = HelperConstants::installedBinary(paths);
    std::string unit = HelperConstants::serviceUnit(paths);
    platform::FileResult written =
        services_.files->writeAtomic(staging, unitText(binary, source), 0644);
    if (!written.ok()) {
        throw FanControlError::helper(written.message());
    }
    struct RemoveStaging {
        const platform::Files &files;
        const std::string &path;
        ~RemoveStaging() { files.remove(path); }
    } removeStaging{*services_.files, staging};

    std::string systemctl = shellQuote(system(kSystemctl));
    std::string install = shellQuote(system(kInstall));
    runPrivileged(joined(
        {
            systemctl + " stop " + std::string(unitName) + " 2>/dev/null",
            shellQuote(system(kMkdir)) + " -p " + shellQuote(platform::parentDirectory(binary)) +
                " " + shellQuote(platform::parentDirectory(unit)),
            install + " -o root -g root -m 755 " + shellQuote(from) + " " + shellQuote(binary),
            install + " -m 644 " + shellQuote(staging) + " " + shellQuote(unit),
            systemctl + " daemon-reload",
            systemctl + " enable --now " + std::string(unitName),
        },
        "; "));
}

void HelperInstaller::uninstall() const {
    const platform::Paths &paths = *services_.paths;
    std::string systemctl = shellQuote(system(kSystemctl));
    runPrivileged(joined(
        {
            systemctl + " disable --now " + std::string(unitName) + " 2>/dev/null",
            shellQuote(system(kRm)) + " -f " + shellQuote(HelperConstants::serviceUnit(paths)) +
                " " + shellQuote(HelperConstants::installedBinary(paths)) + " " +
                shellQuote(HelperConstants::policiesFile(paths)),
            systemctl + " daemon-reload",
            "true",
        },
        "; "));
}

void HelperInstaller::runPrivileged(const std::string &script) const {
    bool root = services_.self.userId == 0;
    platform::ProcessLaunch launch;
    launch.program = system(root ? kShell : kPkexec);
    launch.args = {"-c", script};
    if (!root) {
        launch.args.insert(launch.args.begin(), system(kShell));
    }
    launch.input = platform::Stream::inherit;
    launch.output = platform::Stream::inherit;
    launch.error = platform::Stream::capture;
    platform::ProcessResult result = services_.processes->run(launch);
    if (!result.started()) {
        std::string hint = !root && result.startError == ENOENT
                               ? " (install the pkexec package, or run this command as root)"
                               : "";
        throw FanControlError::helper("cannot run " + launch.program + ": " +
                                      platform::errorText(result.startError) + hint);
    }
    if (result.succeeded()) {
        return;
    }
    if (!root && result.exitCode == kDismissed) {
        throw FanControlError::helper("cancelled by user");
    }
    std::string said = withoutTrailingSpace(text::utf8Repaired(result.error));
    if (said.empty()) {
        said = result.exitCode ? "exit status " + std::to_string(*result.exitCode)
                               : "killed by signal " + std::to_string(result.signal.value_or(0));
    }
    throw FanControlError::helper("privileged install failed: " + said);
}

std::optional<std::string> HelperInstaller::serviceState() const {
    platform::ProcessLaunch launch;
    launch.program = system(kSystemctl);
    launch.args = {"is-active", std::string(unitName)};
    launch.timeout = std::chrono::seconds(5);
    launch.captureLimit = 256;
    std::string state = withoutTrailingSpace(services_.processes->run(launch).output);
    return state.empty() ? std::nullopt : std::optional(state);
}

}  // namespace ostrel
