// An OSTREL_ROOT sandbox holding stand-ins for the programs the installer runs, where
// Paths looks for them: pkexec runs its command, systemctl does nothing, install copies and
// sets the mode, and sh, mkdir and rm are the real ones.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "ostrel/helper_installer.h"
#include "support/temp_dir.h"

namespace ostrel::test {

struct InstallerSandbox {
    InstallerSandbox() {
        auto script = [&](const std::string &relative, const std::string &body) {
            std::string path = root.put(relative, "#!/bin/sh\n" + body);
            ::chmod(path.c_str(), 0755);
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
    }
    // An installer for a user who is not root, so through the fake pkexec.
    HelperInstaller installer() {
        return HelperInstaller({&paths,
                                &env,
                                &platform::realFiles(),
                                &platform::realFileAccess(),
                                processes.get(),
                                {1000, 812}});
    }

    TempDir root;
    platform::FakeEnvironment env{{{"OSTREL_ROOT", root.path()}, {"TMPDIR", root.path() + "/tmp"}}};
    platform::Paths paths{env};
    platform::FakeClock clock;
    std::unique_ptr<platform::Processes> processes = platform::realProcesses(clock);
};

}  // namespace ostrel::test
