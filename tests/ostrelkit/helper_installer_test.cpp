// The installer: its scripts word for word, quoting by the shell's and systemd's rules,
// what a dismissed prompt or a failing script says, where it looks for the daemon, and a
// whole install and uninstall in a sandbox carried out by recording fake programs.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ostrel/fan_policy.h"
#include "ostrel/helper_installer.h"
#include "support/fake_programs.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;

// The installer on fakes: no root, files in memory, processes recorded.
struct FakeSystem {
    FakeSystem() {
        env.set("TMPDIR", "/tmp");
        env.set("HOME", "/home/ann");
        executable("/usr/lib/ostrel/ostrel-helper");
    }
    HelperInstaller installer(unsigned userId = 1000) {
        return HelperInstaller({&paths, &env, &files, &access, &processes, {userId, 812}});
    }
    void executable(const std::string &path) { access.put(path, "ELF").status.mode = 0100755; }
    // The script the one run so far was given.
    std::string script() const {
        EXPECT_EQ(processes.runs.size(), 1u);
        return processes.runs.empty() ? "" : processes.runs.back().args.back();
    }

    platform::FakeEnvironment env;
    platform::Paths paths{env};
    platform::FakeFiles files;
    platform::FakeFileAccess access;
    platform::FakeProcesses processes;
};

std::string messageOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const FanControlError &e) {
        EXPECT_EQ(e.kind(), FanControlError::Kind::helper);
        return e.what();
    }
    return "(no error)";
}

TEST(HelperInstallerTest, TheInstallScriptQuotesEveryPathForTheShell) {
    const std::string fixed =
        "'/bin/systemctl' stop dev.ostrel.helper.service 2>/dev/null; "
        "'/bin/mkdir' -p '/usr/local/libexec' '/etc/systemd/system'; "
        "'/usr/bin/install' -o root -g root -m 755 ";
    const std::string tail =
        " '/usr/local/libexec/dev.ostrel.helper'; "
        "'/usr/bin/install' -m 644 '/tmp/dev.ostrel.helper.812.service' "
        "'/etc/systemd/system/dev.ostrel.helper.service'; "
        "'/bin/systemctl' daemon-reload; "
        "'/bin/systemctl' enable --now dev.ostrel.helper.service";
    struct Case {
        std::string from, quoted;
    };
    const Case cases[] = {
        {"/usr/lib/ostrel/ostrel-helper", "'/usr/lib/ostrel/ostrel-helper'"},
        {"/home/ann/O'Neil/ostrel-helper", R"('/home/ann/O'\''Neil/ostrel-helper')"},
        {"/home/ann/say \"hi\"/ostrel-helper", "'/home/ann/say \"hi\"/ostrel-helper'"},
    };
    for (const Case &c : cases) {
        FakeSystem system;
        system.executable(c.from);
        system.installer().install(c.from);
        EXPECT_EQ(system.script(), fixed + c.quoted + tail);
        const platform::ProcessSpec &run = system.processes.runs.back();
        EXPECT_EQ(run.program, "/usr/bin/pkexec");
        EXPECT_EQ(run.args.front(), "/bin/sh");
        EXPECT_FALSE(system.files.read("/tmp/dev.ostrel.helper.812.service")) << "staging left";
    }
}

TEST(HelperInstallerTest, TheUninstallScriptRemovesTheDaemonItsUnitAndThePolicies) {
    FakeSystem system;
    system.installer(0).uninstall();
    EXPECT_EQ(system.script(),
              "'/bin/systemctl' disable --now dev.ostrel.helper.service 2>/dev/null; "
              "'/bin/rm' -f '/etc/systemd/system/dev.ostrel.helper.service' "
              "'/usr/local/libexec/dev.ostrel.helper' '/var/lib/dev.ostrel/fan-policies.json'; "
              "'/bin/systemctl' daemon-reload; true");
    EXPECT_EQ(system.processes.runs.back().program, "/bin/sh");  // root needs no prompt
}

TEST(HelperInstallerTest, FailuresOfThePrivilegedRunSayWhatHappened) {
    struct Case {
        int status;
        std::string error;
        unsigned userId;
        std::string message;
    };
    const Case cases[] = {
        {126, "", 1000, "cancelled by user"},
        {126, "sh: 1: x: Permission denied\n", 0,
         "privileged install failed: sh: 1: x: "
         "Permission denied"},
        {127, "Error executing command as another user: Not authorized\n", 1000,
         "privileged install failed: Error executing command as another user: Not authorized"},
        {1, "", 1000, "privileged install failed: exit status 1"},
    };
    for (const Case &c : cases) {
        FakeSystem system;
        system.processes.respond = [&c](const platform::ProcessSpec &) {
            platform::ProcessResult result;
            result.exitCode = c.status;
            result.error = c.error;
            return result;
        };
        EXPECT_EQ(messageOf([&] { system.installer(c.userId).runPrivileged("true"); }), c.message);
    }
    FakeSystem missing;
    missing.processes.respond = [](const platform::ProcessSpec &) {
        platform::ProcessResult result;
        result.startError = ENOENT;
        return result;
    };
    EXPECT_EQ(messageOf([&] { missing.installer().runPrivileged("true"); }),
              "cannot run /usr/bin/pkexec: No such file or directory (install the pkexec "
              "package, or run this command as root)");
}

TEST(HelperInstallerTest, NothingRunsWithoutAnExecutableOrAStagingFile) {
    FakeSystem system;
    EXPECT_EQ(messageOf([&] { system.installer().install("/nowhere/ostrel-helper"); }),
              "/nowhere/ostrel-helper is not an executable file");
    system.files.setReadOnly(true);
    EXPECT_EQ(messageOf([&] { system.installer().install("/usr/lib/ostrel/ostrel-helper"); }),
              "cannot write /tmp/dev.ostrel.helper.812.service: Read-only file system");
    EXPECT_TRUE(system.processes.runs.empty());
}

TEST(HelperInstallerTest, InstalledMeansBothTheDaemonAndItsUnit) {
    FakeSystem system;
    EXPECT_FALSE(system.installer().isInstalled());
    system.executable("/usr/local/libexec/dev.ostrel.helper");
    EXPECT_FALSE(system.installer().isInstalled());
    system.access.put("/etc/systemd/system/dev.ostrel.helper.service", "[Unit]");
    EXPECT_TRUE(system.installer().isInstalled());
}

TEST(HelperInstallerTest, TheDaemonIsLookedForNextToTheProgramFirst) {
    FakeSystem system;
    system.access.link("/proc/self/exe", "/usr/bin/ostrel");
    EXPECT_EQ(system.installer().locateHelperBinary(), "/usr/lib/ostrel/ostrel-helper");
    system.access.put("/usr/bin/ostrel-helper", "not executable");
    system.executable("/usr/lib/ostrel/ostrel-helper");
    EXPECT_EQ(system.installer().locateHelperBinary(), "/usr/lib/ostrel/ostrel-helper");
    system.executable("/usr/bin/ostrel-helper");
    EXPECT_EQ(system.installer().locateHelperBinary(), "/usr/bin/ostrel-helper");

    FakeSystem elsewhere;
    elsewhere.access = {};
    EXPECT_EQ(elsewhere.installer().locateHelperBinary(), std::nullopt);
    elsewhere.executable("/home/ann/.local/lib/ostrel/ostrel-helper");
    EXPECT_EQ(elsewhere.installer().locateHelperBinary(),
              "/home/ann/.local/lib/ostrel/ostrel-helper");
}

TEST(HelperInstallerTest, TheUnitQuotesItsArgumentsBySystemdsRules) {
    FakeSystem system;
    std::string unit = system.installer().unitText("/usr/local/libexec/dev.ostrel.helper",
                                                   "/opt/ostrel/100% \"new\"/ostrel-helper");
    EXPECT_NE(unit.find("\nExecStart=\"/usr/local/libexec/dev.ostrel.helper\" \"--source\" "
                        "\"/opt/ostrel/100%% \\\"new\\\"/ostrel-helper\"\n"),
              std::string::npos)
        << unit;
    EXPECT_EQ(systemdQuote("$HOME\\\n"), "\"$$HOME\\\\\\x0a\"");
    EXPECT_EQ(system.installer().unitText("/x", std::nullopt).find("--source"), std::string::npos);
}

TEST(HelperInstallerTest, SelfUpdateSourcesAreThePackageAndUserLocationsOnly) {
    platform::FakeEnvironment env;
    platform::Paths paths(env);
    for (const char *good :
         {"/usr/lib/ostrel/ostrel-helper", "/opt/ostrel/bin/ostrel-helper",
          "/usr/local/lib/ostrel/ostrel-helper", "/home/ann/.local/lib/ostrel/ostrel-helper"}) {
        EXPECT_TRUE(isAcceptableSourceLocation(good, paths)) << good;
    }
    for (const char *bad : {"/usr/lib/ostrel/", "/usr/lib/ostrelx/ostrel-helper",
                            "/tmp/ostrel-helper", "/home//.local/lib/ostrel/h",
                            "/home/ann/x/.local/lib/ostrel/h", "/home/ann/.local/lib/ostrel/"}) {
        EXPECT_FALSE(isAcceptableSourceLocation(bad, paths)) << bad;
    }
    env.set("OSTREL_ROOT", "/sandbox");
    EXPECT_TRUE(isAcceptableSourceLocation("/sandbox/opt/ostrel/ostrel-helper", paths));
    EXPECT_FALSE(isAcceptableSourceLocation("/opt/ostrel/ostrel-helper", paths));
}

// The real code with real processes: every program the scripts run is a sandbox fake.
TEST(HelperInstallerTest, InstallsAndUninstallsInASandbox) {
    test::InstallerSandbox sandbox;
    const test::TempDir &root = sandbox.root;
    std::string from = root.put("usr/lib/ostrel/ostrel-helper", "daemon");
    ::chmod(from.c_str(), 0755);
    root.put("var/lib/dev.ostrel/fan-policies.json", "{}");
    HelperInstaller installer = sandbox.installer();

    installer.install(from);
    EXPECT_TRUE(installer.isInstalled());
    EXPECT_EQ(root.read("usr/local/libexec/dev.ostrel.helper"), "daemon");
    std::string unit = root.read("etc/systemd/system/dev.ostrel.helper.service");
    EXPECT_NE(unit.find("\"--source\" \"" + from + "\""), std::string::npos) << unit;
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/tmp/dev.ostrel.helper.812.service"));

    installer.uninstall();
    EXPECT_FALSE(installer.isInstalled());
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/var/lib/dev.ostrel/fan-policies.json"));
    std::string calls = root.read("calls.log");
    for (const char *call : {"systemctl stop dev.ostrel.helper.service", "install -o root",
                             "systemctl enable --now dev.ostrel.helper.service",
                             "systemctl disable --now dev.ostrel.helper.service"}) {
        EXPECT_NE(calls.find(call), std::string::npos) << call << " in\n" << calls;
    }
    EXPECT_EQ(calls.rfind("pkexec", 0), 0u);
}

TEST(HelperInstallerTest, ADismissedPromptInTheSandboxIsCancelledByUser) {
    test::InstallerSandbox sandbox(126);
    EXPECT_EQ(messageOf([&] { sandbox.installer().uninstall(); }), "cancelled by user");
    EXPECT_EQ(sandbox.installer().serviceState(), std::nullopt);  // the fake says nothing
}

}  // namespace
