// Recording stand-ins for the programs the installer runs, placed where Paths looks for
// them inside a sandbox: pkexec runs its command, systemctl only records, install copies
// and sets the mode, and sh, mkdir and rm are the real ones. Every call is appended to
// ROOT/calls.log as one line: the program's name and its arguments.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "ostrel/helper_installer.h"
#include "support/temp_dir.h"

namespace ostrel::test {

// Installs the programs below `root` and returns the path of the call log. `pkexecStatus`
// other than 0 makes pkexec fail with it without running anything, as a dismissed prompt
// (126) does.
inline std::string installFakePrograms(const TempDir &root, int pkexecStatus = 0) {
    std::string log = root.path() + "/calls.log";
    auto script = [&](const std::string &relative, const std::string &body) {
        std::string path = root.put(
            relative, "#!/bin/sh\necho \"$(basename \"$0\") $*\" >> '" + log + "'\n" + body);
        ::chmod(path.c_str(), 0755);
    };
    script("usr/bin/pkexec",
           pkexecStatus == 0 ? "exec \"$@\"\n" : "exit " + std::to_string(pkexecStatus) + "\n");
    script("bin/systemctl", "");
    script("usr/bin/install",
           "while [ $# -gt 2 ]; do case \"$1\" in -m) mode=$2; shift 2;; *) shift 2;; esac; done\n"
           "cp \"$1\" \"$2\" && chmod \"$mode\" \"$2\"\n");
    for (const char *real : {"bin/sh", "bin/mkdir", "bin/rm"}) {
        std::filesystem::create_directories(root.path() + "/bin");
        std::filesystem::create_symlink(std::string("/") + real, root.path() + "/" + real);
    }
    return log;
}

// An OSTREL_ROOT sandbox with the fake programs, and an installer that runs them for a
// user who is not root (so through the fake pkexec).
struct InstallerSandbox {
    explicit InstallerSandbox(int pkexecStatus = 0) : log(installFakePrograms(root, pkexecStatus)) {
        root.put("tmp/.keep", "");
    }
    HelperInstaller installer() {
        return HelperInstaller({&paths,
                                &env,
                                &platform::realFiles(),
                                &platform::realFileAccess(),
                                processes.get(),
                                {1000, 812}});
    }

    TempDir root;
    std::string log;
    platform::FakeEnvironment env{{{"OSTREL_ROOT", root.path()}, {"TMPDIR", root.path() + "/tmp"}}};
    platform::Paths paths{env};
    platform::FakeClock clock;
    std::unique_ptr<platform::Processes> processes = platform::realProcesses(clock);
};

}  // namespace ostrel::test
