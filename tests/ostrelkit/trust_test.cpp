// Trust: signature blocks, team identifiers, requirements and the checks on files; vetting
// the process at the other end of a socket (real client processes for what the kernel says,
// a fake /proc for the rules about tracing and foreign code); self-update: which sources
// are acceptable, the version query and ordering, and every outcome of an attempt on fake
// files and processes (the end-to-end tests run one on real files).

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ostrel/code_signature.h"
#include "ostrel/helper_self_update.h"
#include "ostrel/peer_identity.h"
#include "support/connected_client.h"
#include "support/self_update_rig.h"
#include "support/signing.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;
using namespace HelperSelfUpdate;
using testing::HasSubstr;

const std::string kContent = "\177ELF\002\001\001" + std::string(57, 'x');
const std::string kZeroSeedKey =
    "ostrel signing key 1\nAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=\n";

SignatureInfo verifyBytes(const std::string &bytes) {
    return verifySignature(*platform::memoryFile(bytes));
}

class CodeSignatureTest : public testing::Test {
  protected:
    SigningKey teamA = SigningKey::generate();
    SigningKey teamB = SigningKey::generate();
    test::TempDir dir;
    int copies = 0;

    // A copy of the client program, signed as `identifier` with `key` (ad hoc when null).
    std::string client(const SigningKey *key, const std::string &identifier = "dev.ostrel.cli") {
        std::string path = dir.path() + "/client" + std::to_string(++copies);
        test::writeExecutable(
            path, test::signedBytes(test::fileBytes(OSTREL_TEST_PEER_CLIENT), identifier, key));
        return path;
    }
};

TEST_F(CodeSignatureTest, SignedBlocksVerifyAndNameTheTeamOfTheKeyAsTheRunningProgramDoes) {
    SignatureInfo keyed = verifyBytes(test::signedBytes(kContent, "dev.ostrel.cli", &teamA));
    EXPECT_EQ(std::tuple(keyed.status, keyed.identifier, keyed.team, keyed.contentSize),
              std::tuple(SignatureStatus::valid, "dev.ostrel.cli", teamA.team(), kContent.size()))
        << keyed.problem;

    SignatureInfo adhoc = verifyBytes(test::signedBytes(kContent, "dev.ostrel.cli", nullptr));
    EXPECT_TRUE(adhoc.valid() && adhoc.adhoc() && !adhoc.team);
    EXPECT_THROW(signatureBlock(kContent, "has space", nullptr), CodeSigningError);

    // The team is a fixed function of the key, worked out independently (BLAKE2b-256 of the
    // key, 50 bits in Crockford base 32); the example in docs/code-signing.md.
    EXPECT_EQ(SigningKey::fromText(kZeroSeedKey).team(), "D2ETWBVQP1");
    EXPECT_THROW(SigningKey::fromText("ostrel signing key 1\nAAAA\n"), CodeSigningError);

    // The running executable's own team: none unless it is validly signed with a key.
    platform::FakeFileAccess files;
    EXPECT_EQ(CodeSignature::teamIdentifier(files), std::nullopt);
    files.put("/proc/self/exe", test::signedBytes(kContent, "dev.ostrel.helper", nullptr));
    EXPECT_EQ(CodeSignature::teamIdentifier(files), std::nullopt);
    files.put("/proc/self/exe", test::signedBytes(kContent, "dev.ostrel.helper", &teamA));
    EXPECT_EQ(CodeSignature::teamIdentifier(files), teamA.team());
    files.put("/proc/self/exe", test::signedBytes(kContent, "dev.ostrel.helper", &teamA) + "!");
    EXPECT_EQ(CodeSignature::teamIdentifier(files), std::nullopt);
}

// No byte of a keyed file can change; an ad hoc block covers at least the content. A cut or
// a block whose length field lies is no signature at all.
TEST_F(CodeSignatureTest, NoSignedByteCanChangeAndTruncatedOrMisleadingBlocksAreNotSigned) {
    for (const SigningKey *key : {&teamA, static_cast<SigningKey *>(nullptr)}) {
        std::string good = test::signedBytes(kContent, "dev.ostrel.cli", key);
        for (std::size_t i = 0; i < (key ? good.size() : kContent.size()); ++i) {
            std::string bad = good;
            bad[i] = static_cast<char>(bad[i] ^ (i % 2 ? 0x01 : 0x80));
            SignatureInfo info = verifyBytes(bad);
            EXPECT_FALSE(info.valid()) << "byte " << i << " of " << good.size();
            EXPECT_TRUE(i >= kContent.size() || info.status == SignatureStatus::invalid) << i;
        }
    }
    std::string good = test::signedBytes(kContent, "dev.ostrel.cli", &teamA);
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_EQ(verifyBytes(good.substr(0, size)).status, SignatureStatus::notSigned) << size;
    }
    std::string trailerOnly = good.substr(good.size() - 16);
    std::size_t body = good.size() - kContent.size() - 16;
    auto withLength = [&](std::size_t length, std::string bytes) {
        auto field = static_cast<std::uint32_t>(length);
        std::memcpy(bytes.data() + bytes.size() - 16, &field, 4);  // little-endian host
        return bytes;
    };
    for (const std::string &bytes :
         {trailerOnly, withLength(0xFFFFFFFF, good), withLength(good.size(), good),
          withLength(body + 1, good), withLength(body - 1, good), std::string("plain text\n")}) {
        SignatureInfo info = verifyBytes(bytes);
        EXPECT_EQ(info.status, SignatureStatus::notSigned);
        EXPECT_EQ(info.contentSize, bytes.size());
    }
}

TEST_F(CodeSignatureTest, RequirementsSayWhatIsMissingAndHelperCandidatesMustBeTheTeamsDaemon) {
    const platform::FileAccess &realFiles = platform::realFileAccess();
    std::string good = dir.path() + "/helper";
    test::writeExecutable(good, test::signedBytes(kContent, "dev.ostrel.helper", &teamA));
    std::string link = dir.path() + "/link";
    std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(::symlink(good.c_str(), link.c_str()), 0);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    struct Case {
        std::string path;
        bool satisfies;
    } cases[] = {
        {good, true},
        {link, true},  // satisfies examines what a link names; lstat checks come before it
        {dir.put("unsigned", kContent), false},
        {dir.path() + "/missing", false},
        {dir.path(), false},
        {fifo, false},  // and does not hang
    };
    for (const Case &c : cases) {
        EXPECT_EQ(satisfies(c.path, teamA.team(), realFiles), c.satisfies) << c.path;
    }
    EXPECT_FALSE(satisfies(good, "", realFiles));
    Signer pinned{teamA.team(), teamB.publicKey()};
    EXPECT_FALSE(satisfies(good, requirement(pinned), realFiles));

    CodeRequirement client = clientRequirement(teamA.team());
    EXPECT_EQ(client.text(), "team \"" + teamA.team() +
                                 "\" and (identifier \"dev.ostrel.cli\" or identifier "
                                 "\"dev.ostrel.app\")");
    EXPECT_EQ(clientRequirement(std::nullopt).text(),
              "(identifier \"dev.ostrel.cli\" or identifier \"dev.ostrel.app\")");
    EXPECT_EQ(requirement("T").text(), "team \"T\" and identifier \"dev.ostrel.helper\"");

    EXPECT_EQ(client.unmetBy(verifyBytes(test::signedBytes(kContent, "dev.ostrel.app", &teamB))),
              "signed by team " + teamB.team() + ", not " + teamA.team());
    EXPECT_EQ(client.unmetBy(verifyBytes(kContent)), "not signed");
    EXPECT_TRUE(
        clientRequirement(std::nullopt)
            .isSatisfiedBy(verifyBytes(test::signedBytes(kContent, "dev.ostrel.app", nullptr))));
}

TEST_F(CodeSignatureTest, OnlyOurSignedProgramsAreServed) {
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

TEST_F(CodeSignatureTest, VerdictsAreCachedUntilTheExecutableChanges) {
    for (platform::PidfdSource source :
         {platform::PidfdSource::socket, platform::PidfdSource::byPid}) {
        std::string program = client(&teamA);
        test::ConnectedClient connection(program, dir.path());
        PeerVetting vetting(clientRequirement(teamA.team()), platform::realProcessAccess(source));
        PeerLookup lookup = identifyPeer(connection.fd(), platform::realProcessAccess(source));
        ASSERT_TRUE(lookup.peer) << lookup.problem;
        EXPECT_TRUE(vetting.check(*lookup.peer).accepted);
        EXPECT_TRUE(vetting.check(*lookup.peer).accepted);
        EXPECT_EQ(std::tuple(vetting.cache().misses(), vetting.cache().hits()), std::tuple(1u, 1u));

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

using test::printed;
using Rig = test::SelfUpdateRig;

class SelfUpdateTest : public testing::Test, protected Rig {};

TEST_F(SelfUpdateTest, SourcesMustBeRegularFilesWhoseRealPathIsInAnInstallLocation) {
    const std::pair<std::string, bool> cases[] = {
        {source, true},
        {"/home/alice/.local/lib/ostrel/ostrel-helper", true},
        {"/home/alice/Desktop/ostrel-helper", false},
        {"/home//.local/lib/ostrel/ostrel-helper", false},
        {"/opt/ostrel-evil/ostrel-helper", false},
        {"/opt/ostrel/missing", false},
    };
    for (const auto &[path, ok] : cases) {
        if (!path.ends_with("missing")) {
            files.put(path, "x");
        }
        EXPECT_EQ(acceptableSource(path, paths, files).has_value(), ok) << path;
    }

    // In a sandbox the install locations are the sandbox's (the end-to-end update uses one).
    env.set("OSTREL_ROOT", "/sandbox/");
    EXPECT_FALSE(acceptableSource(source, paths, files));
}

TEST_F(SelfUpdateTest, VersionsAreWhatARunPrintsComparedByRunsOfDigits) {
    const std::tuple<const char *, const char *, int> orders[] = {
        {"1.1.9", "1.1.13", -1}, {"1.2.0", "1.1.99", 1}, {"1.01", "1.1", 0},
        {"1.1", "1.1.0", -1},    {"2", "10", -1},        {"1.123456789012345678901", "1.99", 1},
    };
    for (const auto &[a, b, order] : orders) {
        EXPECT_EQ(compareVersions(a, b), order) << a << " vs " << b;
        EXPECT_EQ(compareVersions(b, a), -order) << b << " vs " << a;
    }

    // A version is the trimmed output of a successful run.
    EXPECT_EQ(version("/x", processes), "1.1.14");
    EXPECT_EQ(processes.runs,
              (std::vector<platform::ProcessLaunch>{{.program = "/x",
                                                     .args = {"--print-version"},
                                                     .timeout = std::chrono::milliseconds(5000),
                                                     .captureLimit = 4096}}));
    const std::pair<platform::ProcessResult, std::optional<std::string>> outputs[] = {
        {printed(" \r\n1.2.0 \n"), "1.2.0"},
        {printed("1.2\xff"), "1.2\xEF\xBF\xBD"},
        {printed(" \n"), std::nullopt},
        {printed("1.2.0\n", 1), std::nullopt},
        {platform::ProcessResult{0, true, std::nullopt, 9, "1.2.0", ""}, std::nullopt},
        {platform::ProcessResult{ENOEXEC, false, std::nullopt, std::nullopt, "", ""}, std::nullopt},
    };
    for (const auto &[result, expected] : outputs) {
        answer = result;
        EXPECT_EQ(version("/x", processes), expected) << result.output;
    }
}

TEST_F(SelfUpdateTest, ANewerSignedCopyIsStagedCheckedAndRenamedIntoPlace) {
    files.put(staging, "leftover of an interrupted attempt");
    services.ownerUid = 7;  // a sandbox's user
    EXPECT_EQ(attempt(), Outcome(Updated{"1.1.14"}));
    // Only the staged copy ran, root-owned and executable when it did.
    ASSERT_EQ(processes.runs.size(), 1u);
    EXPECT_EQ(processes.runs[0].program, staging);
    EXPECT_EQ(files.find(destination)->bytes, files.find(source)->bytes);
    EXPECT_EQ(files.find(destination)->status.mode & 07777, 0755u);
    EXPECT_EQ(files.find(destination)->status.uid, 7u);
    EXPECT_EQ(files.find(staging), nullptr);
    // Once the daemon is that copy, nothing is staged or run.
    EXPECT_EQ(attempt(), Outcome(Unchanged{}));
    EXPECT_TRUE(processes.runs.size() == 1 && !files.find(staging)) << "nothing staged";
}

TEST_F(SelfUpdateTest, EveryRejectionSaysWhyAndLeavesTheDestinationAndNoStagingFile) {
    const std::string notUsable =
        " is not usable right now (missing, a link, or not in an install location)";
    const std::string unsigned_ = source + " is not signed by team " + test::teamKey().team();
    static const SigningKey other = SigningKey::generate();
    struct Case {
        const char *name;
        std::function<void(Rig &)> arrange;
        std::string reason;
        bool ran = false;  // whether the candidate was executed
    };
    const Case cases[] = {
        {"link", [](Rig &r) { r.files.link("/opt/ostrel/h", source); },
         "/opt/ostrel/h" + notUsable},
        {"copy", [](Rig &r) { r.files.fail("copyNew", staging, ENOSPC); },
         "could not stage " + source},
        {"chown", [](Rig &r) { r.files.fail("changeOwner", staging, EPERM); },
         "could not stage " + source},
        {"chmod", [](Rig &r) { r.files.fail("changeMode", staging, EPERM); },
         "could not stage " + source},
        {"other team", [](Rig &r) { r.put(source, &other); }, unsigned_},
        {"silent", [](Rig &r) { r.answer = printed(""); }, source + " did not report a version",
         true},
        {"older", [](Rig &r) { r.answer = printed("1.1.9"); },
         source + " is version 1.1.9, not newer than 1.1.13", true},
        {"same version", [](Rig &r) { r.answer = printed("1.1.13"); },
         source + " is version 1.1.13, not newer than 1.1.13", true},
        {"rename", [](Rig &r) { r.files.fail("rename", destination, EXDEV); },
         "could not replace " + destination, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Rig r;
        c.arrange(r);
        EXPECT_EQ(r.attempt(c.name == std::string("link") ? "/opt/ostrel/h" : source),
                  Outcome(Rejected{c.reason}));
        EXPECT_EQ(std::tuple(r.files.find(destination)->bytes, r.files.find(staging),
                             r.processes.runs.size()),
                  std::tuple("old daemon", nullptr, c.ran ? 1u : 0u));
    }
}

}  // namespace
