// Vetting the process at the other end of a socket: real client processes for what the
// kernel says, a fake /proc for the rules about tracing and foreign code.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "ostrel/peer_identity.h"
#include "support/connected_client.h"
#include "support/signing.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class PeerIdentityTest : public testing::Test {
  protected:
    test::TempDir dir;
    SigningKey teamA = SigningKey::generate();
    int copies = 0;

    // A copy of the client program, signed as `identifier` with `key` (ad hoc when null).
    std::string client(const SigningKey *key, const std::string &identifier = "dev.ostrel.cli") {
        std::string path = dir.path() + "/client" + std::to_string(++copies);
        test::writeExecutable(
            path, test::signedBytes(test::fileBytes(OSTREL_TEST_PEER_CLIENT), identifier, key));
        return path;
    }
};

TEST_F(PeerIdentityTest, OnlyOurSignedProgramsAreServed) {
    std::string preload = dir.path() + "/preload.so";
    std::filesystem::copy_file(OSTREL_TEST_PRELOAD, preload);
    ::chmod(preload.c_str(), 0775);  // group-writable: refused whoever owns it, root included
    struct Case {
        const char *name;
        const SigningKey *key;
        std::optional<std::string> daemonTeam;
        std::string preload;
        std::string refusal;  // empty: accepted
        std::string identifier = "dev.ostrel.cli";
    } cases[] = {
        {"team-signed client", &teamA, teamA.team(), "", ""},
        {"ad hoc client, daemon without team", nullptr, std::nullopt, "", ""},
        {"LD_PRELOAD of a writable library", &teamA, teamA.team(), preload,
         "runs code from " + preload},
        {"the daemon's identifier", &teamA, teamA.team(), "",
         "signed as \"dev.ostrel.helper\", which is not accepted", "dev.ostrel.helper"},
    };
    for (const Case &c : cases) {
        test::ConnectedClient peer(client(c.key, c.identifier), dir.path(), c.preload);
        PeerVetting vetting(clientRequirement(c.daemonTeam), platform::realProcessAccess());
        PeerVerdict verdict = vetting.check(peer.fd());
        EXPECT_EQ(verdict.accepted, c.refusal.empty()) << c.name << ": " << verdict.reason;
        EXPECT_THAT(verdict.reason, HasSubstr(c.refusal)) << c.name;
        EXPECT_GT(verdict.credentials.pid, 0);
        EXPECT_EQ(verdict.credentials.uid, ::getuid());
    }
}

TEST_F(PeerIdentityTest, VerdictsAreCachedUntilTheExecutableChanges) {
    for (platform::PidfdSource source :
         {platform::PidfdSource::socket, platform::PidfdSource::byPid}) {
        std::string program = client(&teamA);
        test::ConnectedClient connection(program, dir.path());
        PeerVetting vetting(clientRequirement(teamA.team()), platform::realProcessAccess(source));
        PeerLookup lookup = identifyPeer(connection.fd(), platform::realProcessAccess(source));
        ASSERT_TRUE(lookup.peer) << lookup.problem;
        EXPECT_TRUE(vetting.check(*lookup.peer).accepted);
        EXPECT_TRUE(vetting.check(*lookup.peer).accepted);
        EXPECT_EQ(vetting.cache().misses(), 1u);
        EXPECT_EQ(vetting.cache().hits(), 1u);

        timespec later[2] = {{0, UTIME_OMIT}, {1, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, program.c_str(), later, 0), 0);
        EXPECT_TRUE(vetting.check(*lookup.peer).accepted);
        EXPECT_EQ(vetting.cache().misses(), 2u);

        connection.finish();
        EXPECT_FALSE(vetting.check(*lookup.peer).accepted) << "a peer that has gone";
    }
}

// A made-up peer, pid 42, whose executable is signed ad hoc as the CLI and mapped from
// device 0:1, inode 100; a root-owned library (inode 200) and a user's (inode 300).
class PeerRulesTest : public testing::Test {
  protected:
    platform::FakeProcessAccess access;
    PeerVetting vetting{clientRequirement(std::nullopt), access};
    const std::string exe = "55d000-55e000 r-xp 00001000 00:01 100 /usr/bin/ostrel\n";

    PeerRulesTest() {
        access.setPeer(42, 1000, 1000);
        platform::FakeFileAccess &files = access.fakeFiles();
        files.put("/proc/42/exe", test::signedBytes("program", "dev.ostrel.cli", nullptr),
                  {1, 100});
        files.put("/usr/lib/libc.so.6", "", {1, 200, 0, 0, 0, 0100755, 0, 0});
        files.put("/home/u/evil.so", "", {1, 300, 0, 0, 0, 0100755, 1000, 1000});
    }

    // Why `by` (the fixture's vetting when null) refuses the peer; empty when it accepts.
    std::string reason(const std::string &status, const std::string &maps,
                       PeerVetting *by = nullptr) {
        access.fakeFiles().put("/proc/42/status", "Name:\tostrel\n" + status + "Uid:\t0\n");
        access.fakeFiles().put("/proc/42/maps", maps);
        PeerVerdict verdict = (by ? *by : vetting).check(-1);
        EXPECT_EQ(verdict.accepted, verdict.reason.empty());
        return verdict.reason;
    }
};

TEST_F(PeerRulesTest, ForeignCodeMakesAPeerUnverifiableButOwnFilesStayTrusted) {
    const std::string clean = "TracerPid:\t0\n";
    const std::string libc = "7f0000-7f1000 r-xp 00000000 00:01 200    /usr/lib/libc.so.6\n";
    const std::string quiet =
        "7f2000-7f3000 r--p 00000000 00:01 300 /home/u/evil.so\n"
        "7f3000-7f4000 rwxp 00000000 00:00 0 \n"
        "7ffd000-7ffe000 r-xp 00000000 00:00 0 [vdso]\n";
    struct Case {
        std::string status, maps, refusal;
    } cases[] = {
        {clean, exe + libc + quiet, ""},
        {"TracerPid:\t77\n", exe + libc, "it is being traced by process 77"},
        {"", exe, "cannot read its status: no TracerPid"},
        {clean, exe + "7f0000-7f1000 r-xp 00000000 00:01 300 /home/u/evil.so\n",
         "runs code from /home/u/evil.so, which is not a root-owned file"},
        {clean, exe + "7f0000-7f1000 r-xp 00000000 00:01 201 /usr/lib/libc.so.6\n",
         "runs code from /usr/lib/libc.so.6, which is no longer that file"},
        {clean, exe + "7f0000-7f1000 r-xp 00000000 00:05 7 /memfd:x (deleted)\n",
         "runs code from /memfd:x (deleted)"},
        {clean, libc, "its executable is not mapped"},
        {clean, exe + "7f0000 r-xp 0 00:01 200 /usr/lib/libc.so.6\n", "unexpected format"},
    };
    for (const Case &c : cases) {
        EXPECT_THAT(reason(c.status, c.maps), HasSubstr(c.refusal)) << c.maps;
    }

    // Files this process runs stay trusted when their paths change: an upgrade puts a new
    // file at the path; the old one lives on in both processes.
    access.fakeFiles().put("/proc/self/maps", libc);
    PeerVetting pinning(clientRequirement(std::nullopt), access);
    access.fakeFiles().put("/usr/lib/libc.so.6", "", {1, 200, 0, 0, 0, 0100775, 0, 0});
    EXPECT_THAT(reason(clean, exe + libc), HasSubstr("not a root-owned file closed to writes"));
    access.fakeFiles().put("/usr/lib/libc.so.6", "", {1, 201, 0, 0, 0, 0100755, 0, 0});
    EXPECT_EQ(reason(clean, exe + libc, &pinning), "");
    EXPECT_THAT(reason(clean, exe + libc), HasSubstr("no longer that file"));
    access.setExited(true);
    EXPECT_THAT(reason(clean, exe), HasSubstr("it has exited"));
}

}  // namespace
