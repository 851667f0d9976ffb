// The installer: its scripts word for word, quoting by the shell's and systemd's rules,
// what a dismissed prompt or a failing script says, where it looks for the daemon, and a
// whole install and uninstall in a sandbox carried out by recording fake programs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ostrel/fan_policy.h"
#include "ostrel/helper_installer.h"
#include "support/fake_programs.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

// The installer on fakes: files in memory, processes recorded, no root.
struct FakeSystem {
    FakeSystem() { executable("/usr/lib/ostrel/ostrel-helper"); }
    HelperInstaller installer(unsigned userId = 1000) {
        return HelperInstaller({&paths, &env, &files, &access, &processes, {userId, 812}});
    }
    void executable(const std::string &path) { access.put(path, "ELF").status.mode = 0100755; }
    std::string script() const { return processes.runs.at(0).args.back(); }
    // The message of what `action` throws.
    std::string error(const std::function<void(HelperInstaller &)> &action) {
        try {
            HelperInstaller subject = installer();
            action(subject);
        } catch (const FanControlError &e) {
            return e.what();
        }
        return "(no error)";
    }

    platform::FakeEnvironment env{{{"TMPDIR", "/tmp"}}};
    platform::Paths paths{env};
    platform::FakeFiles files;
    platform::FakeFileAccess access;
    platform::FakeProcesses processes;
};

TEST(HelperInstallerTest, TheScriptsQuoteEveryPathForTheShell) {
    for (auto [from, quoted] : std::map<std::string, std::string>{
             {"/usr/lib/ostrel/ostrel-helper", "'/usr/lib/ostrel/ostrel-helper'"},
             {"/home/ann/O'Neil/ostrel-helper", R"('/home/ann/O'\''Neil/ostrel-helper')"},
             {"/home/ann/\"hi\"/ostrel-helper", "'/home/ann/\"hi\"/ostrel-helper'"}}) {
        FakeSystem system;
        system.executable(from);
        system.installer().install(from);
        EXPECT_EQ(system.script(),
                  "'/bin/systemctl' stop dev.ostrel.helper.service 2>/dev/null; "
                  "'/bin/mkdir' -p '/usr/local/libexec' '/etc/systemd/system'; "
                  "'/usr/bin/install' -o root -g root -m 755 " +
                      quoted +
                      " '/usr/local/libexec/dev.ostrel.helper'; '/usr/bin/install' -m 644 "
                      "'/tmp/dev.ostrel.helper.812.service' "
                      "'/etc/systemd/system/dev.ostrel.helper.service'; "
                      "'/bin/systemctl' daemon-reload; "
                      "'/bin/systemctl' enable --now dev.ostrel.helper.service");
        EXPECT_EQ(system.processes.runs[0].program, "/usr/bin/pkexec");
        EXPECT_FALSE(system.files.read("/tmp/dev.ostrel.helper.812.service")) << "staging left";
    }
    FakeSystem root;
    root.installer(0).uninstall();
    EXPECT_EQ(root.processes.runs[0].program, "/bin/sh");  // root needs no prompt
    EXPECT_EQ(root.script(),
              "'/bin/systemctl' disable --now dev.ostrel.helper.service 2>/dev/null; "
              "'/bin/rm' -f '/etc/systemd/system/dev.ostrel.helper.service' "
              "'/usr/local/libexec/dev.ostrel.helper' '/var/lib/dev.ostrel/fan-policies.json'; "
              "'/bin/systemctl' daemon-reload; true");
}

TEST(HelperInstallerTest, FailuresSayWhatHappenedAndNothingRunsWithoutItsFiles) {
    struct Case {
        int status, startError;
        std::string error, message;
    };
    for (const Case &c : std::vector<Case>{
             {126, 0, "", "cancelled by user"},
             {127, 0, "Not authorized\n", "privileged install failed: Not authorized"},
             {1, 0, "", "privileged install failed: exit status 1"},
             {0, ENOENT, "",
              "cannot run /usr/bin/pkexec: No such file or directory (install "
              "the pkexec package, or run this command as root)"}}) {
        FakeSystem system;
        system.processes.respond = [&c](const platform::ProcessLaunch &) {
            return platform::ProcessResult{c.startError, false, c.status, {}, {}, c.error};
        };
        EXPECT_EQ(system.error([](auto &installer) { installer.uninstall(); }), c.message);
    }
    FakeSystem system;
    EXPECT_EQ(system.error([](auto &installer) { installer.install("/nowhere/ostrel-helper"); }),
              "/nowhere/ostrel-helper is not an executable file");
    system.files.setReadOnly(true);
    EXPECT_EQ(system.error([](auto &in) { in.install("/usr/lib/ostrel/ostrel-helper"); }),
              "cannot write /tmp/dev.ostrel.helper.812.service: Read-only file system");
    EXPECT_TRUE(system.processes.runs.empty());
}

TEST(HelperInstallerTest, InstalledMeansBothFilesAndTheDaemonIsFoundNextToTheProgramFirst) {
    FakeSystem system;
    system.executable("/usr/local/libexec/dev.ostrel.helper");
    EXPECT_FALSE(system.installer().isInstalled());
    system.access.put("/etc/systemd/system/dev.ostrel.helper.service", "[Unit]");
    EXPECT_TRUE(system.installer().isInstalled());

    system.access.link("/proc/self/exe", "/usr/bin/ostrel");
    system.access.put("/usr/bin/ostrel-helper", "not executable");
    EXPECT_EQ(system.installer().locateHelperBinary(), "/usr/lib/ostrel/ostrel-helper");
    system.executable("/usr/bin/ostrel-helper");
    EXPECT_EQ(system.installer().locateHelperBinary(), "/usr/bin/ostrel-helper");
}

TEST(HelperInstallerTest, TheUnitQuotesArgumentsBySystemdsRules) {
    std::string unit = FakeSystem().installer().unitText("/usr/local/libexec/dev.ostrel.helper",
                                                         "/opt/ostrel/100% \"new\"/x");
    EXPECT_THAT(unit, HasSubstr("\nExecStart=\"/usr/local/libexec/dev.ostrel.helper\" \"--source\" "
                                "\"/opt/ostrel/100%% \\\"new\\\"/x\"\n"));
    EXPECT_EQ(systemdQuote("$HOME\\\n"), "\"$$HOME\\\\\\x0a\"");
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
    EXPECT_THAT(root.read("etc/systemd/system/dev.ostrel.helper.service"),
                HasSubstr("\"--source\" \"" + from + "\""));

    installer.uninstall();
    EXPECT_FALSE(installer.isInstalled());
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/var/lib/dev.ostrel/fan-policies.json"));
}

}  // namespace
