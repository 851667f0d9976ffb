// The installer: its scripts word for word, quoting by the shell's and systemd's rules,
// what a dismissed prompt or a failing script says, where it looks for the daemon, and a
// whole install and uninstall in a sandbox carried out by stand-in programs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "ostrel/fan_policy.h"
#include "ostrel/helper_installer.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

// Matches an action that throws a FanControlError saying `message`.
auto Throws(const std::string &message) {
    return testing::ThrowsMessage<FanControlError>(testing::StrEq(message));
}

// The installer on fakes: files in memory, processes recorded, no root.
struct FakeSystem {
    FakeSystem() { executable("/usr/lib/ostrel/ostrel-helper"); }
    HelperInstaller installer(unsigned userId = 1000) {
        return HelperInstaller({&paths, &env, &files, &access, &processes, {userId, 812}});
    }
    void executable(const std::string &path) { access.put(path, "ELF").status.mode = 0100755; }
    std::string script() const { return processes.runs.at(0).args.back(); }

    platform::FakeEnvironment env{{{"TMPDIR", "/tmp"}}};
    platform::Paths paths{env};
    platform::FakeFiles files;
    platform::FakeFileAccess access;
    platform::FakeProcesses processes;
};

TEST(HelperInstallerTest, TheScriptsQuoteEveryPathForTheShell) {
    for (auto [from, quoted] : std::map<std::string, std::string>{
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
        EXPECT_THAT([&] { system.installer().uninstall(); }, Throws(c.message));
    }
    FakeSystem system;
    EXPECT_THAT([&] { system.installer().install("/nowhere/ostrel-helper"); },
                Throws("/nowhere/ostrel-helper is not an executable file"));
    system.files.setReadOnly(true);
    EXPECT_THAT([&] { system.installer().install("/usr/lib/ostrel/ostrel-helper"); },
                Throws("cannot write /tmp/dev.ostrel.helper.812.service: Read-only file system"));
    EXPECT_TRUE(system.processes.runs.empty());
}

TEST(HelperInstallerTest, InstalledStateWhereTheDaemonIsFoundAndHowTheUnitQuotes) {
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

    // The unit quotes its arguments by systemd's rules.
    std::string unit = system.installer().unitText("/usr/local/libexec/dev.ostrel.helper",
                                                   "/opt/ostrel/100% \"new\"/x");
    EXPECT_THAT(unit, HasSubstr("\nExecStart=\"/usr/local/libexec/dev.ostrel.helper\" \"--source\" "
                                "\"/opt/ostrel/100%% \\\"new\\\"/x\"\n"));
    EXPECT_EQ(systemdQuote("$HOME\\\n"), "\"$$HOME\\\\\\x0a\"");
}

// The real code with real processes, in an OSTREL_ROOT sandbox where Paths finds stand-ins
// for the programs the scripts run: pkexec runs its command, systemctl does nothing,
// install copies and sets the mode; sh, mkdir and rm are the real ones.
TEST(HelperInstallerTest, InstallsAndUninstallsInASandbox) {
    test::TempDir root;
    auto script = [&](const std::string &relative, const std::string &body) {
        std::string path = root.put(relative, "#!/bin/sh\n" + body);
        ::chmod(path.c_str(), 0755);
        return path;
    };
    script("usr/bin/pkexec", "exec \"$@\"\n");
    script("bin/systemctl", "exit 0\n");
    script("usr/bin/install",
           "while [ $# -gt 2 ]; do [ \"$1\" = -m ] && mode=$2; shift 2; done\n"
           "cp \"$1\" \"$2\" && chmod \"$mode\" \"$2\"\n");
    for (const char *real : {"bin/sh", "bin/mkdir", "bin/rm"}) {
        std::filesystem::create_symlink(std::string("/") + real, root.path() + "/" + real);
    }
    root.put("tmp/.keep", "");
    root.put("var/lib/dev.ostrel/fan-policies.json", "{}");
    platform::FakeEnvironment env{{{"OSTREL_ROOT", root.path()}, {"TMPDIR", root.path() + "/tmp"}}};
    platform::Paths paths{env};
    platform::FakeClock clock;
    std::unique_ptr<platform::Processes> processes = platform::realProcesses(clock);
    HelperInstaller installer({&paths,
                               &env,
                               &platform::realFiles(),
                               &platform::realFileAccess(),
                               processes.get(),
                               {1000, 812}});

    std::string from = script("usr/lib/ostrel/ostrel-helper", "daemon");
    installer.install(from);
    EXPECT_TRUE(installer.isInstalled());
    EXPECT_EQ(root.read("usr/local/libexec/dev.ostrel.helper"), "#!/bin/sh\ndaemon");
    EXPECT_THAT(root.read("etc/systemd/system/dev.ostrel.helper.service"),
                HasSubstr("\"--source\" \"" + from + "\""));

    installer.uninstall();
    EXPECT_FALSE(installer.isInstalled());
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/var/lib/dev.ostrel/fan-policies.json"));
}

}  // namespace
