// Signature blocks, team identifiers, requirements and the checks on files.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "ostrel/code_signature.h"
#include "support/signing.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;

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
};

TEST_F(CodeSignatureTest, SignedBlocksVerifyAndNameTheTeamOfTheKey) {
    SignatureInfo keyed = verifyBytes(test::signedBytes(kContent, "dev.ostrel.cli", &teamA));
    EXPECT_TRUE(keyed.valid()) << keyed.problem;
    EXPECT_EQ(keyed.identifier, "dev.ostrel.cli");
    EXPECT_EQ(keyed.team, teamA.team());
    EXPECT_EQ(keyed.contentSize, kContent.size());

    SignatureInfo adhoc = verifyBytes(test::signedBytes(kContent, "dev.ostrel.cli", nullptr));
    EXPECT_TRUE(adhoc.valid() && adhoc.adhoc());
    EXPECT_FALSE(adhoc.team);
    EXPECT_THROW(signatureBlock(kContent, "has space", nullptr), CodeSigningError);

    // The team is a fixed function of the key, worked out independently (BLAKE2b-256 of the
    // key, 50 bits in Crockford base 32); the example in docs/code-signing.md.
    EXPECT_EQ(SigningKey::fromText(kZeroSeedKey).team(), "D2ETWBVQP1");
    EXPECT_THROW(SigningKey::fromText("ostrel signing key 1\nAAAA\n"), CodeSigningError);
}

// No byte of a keyed file can change; an ad hoc block covers at least the content.
TEST_F(CodeSignatureTest, NoSignedByteCanChange) {
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
}

TEST_F(CodeSignatureTest, TruncatedOrMisleadingBlocksAreNotSigned) {
    std::string good = test::signedBytes(kContent, "dev.ostrel.cli", &teamA);
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_EQ(verifyBytes(good.substr(0, size)).status, SignatureStatus::notSigned) << size;
    }
    std::string trailerOnly = good.substr(good.size() - 16);
    std::size_t body = good.size() - kContent.size() - 16;
    auto withLength = [&](std::uint32_t length, std::string bytes) {
        std::memcpy(bytes.data() + bytes.size() - 16, &length, 4);  // little-endian host
        return bytes;
    };
    for (const std::string &bytes :
         {trailerOnly, withLength(0xFFFFFFFF, good),
          withLength(static_cast<std::uint32_t>(good.size()), good),
          withLength(static_cast<std::uint32_t>(body + 1), good),
          withLength(static_cast<std::uint32_t>(body - 1), good), std::string("plain text\n")}) {
        SignatureInfo info = verifyBytes(bytes);
        EXPECT_EQ(info.status, SignatureStatus::notSigned);
        EXPECT_EQ(info.contentSize, bytes.size());
    }
}

TEST_F(CodeSignatureTest, HelperCandidatesMustBeTheDaemonOfTheTeam) {
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
        EXPECT_EQ(HelperSelfUpdate::satisfies(c.path, teamA.team(), realFiles), c.satisfies)
            << c.path;
    }
    EXPECT_FALSE(HelperSelfUpdate::satisfies(good, "", realFiles));
    Signer pinned{teamA.team(), teamB.publicKey()};
    EXPECT_FALSE(
        HelperSelfUpdate::satisfies(good, HelperSelfUpdate::requirement(pinned), realFiles));
}

TEST_F(CodeSignatureTest, RequirementsExplainWhatIsMissing) {
    CodeRequirement client = clientRequirement(teamA.team());
    EXPECT_EQ(client.text(), "team \"" + teamA.team() +
                                 "\" and (identifier \"dev.ostrel.cli\" or identifier "
                                 "\"dev.ostrel.app\")");
    EXPECT_EQ(clientRequirement(std::nullopt).text(),
              "(identifier \"dev.ostrel.cli\" or identifier \"dev.ostrel.app\")");
    EXPECT_EQ(HelperSelfUpdate::requirement("T").text(),
              "team \"T\" and identifier \"dev.ostrel.helper\"");

    EXPECT_EQ(client.unmetBy(verifyBytes(test::signedBytes(kContent, "dev.ostrel.app", &teamB))),
              "signed by team " + teamB.team() + ", not " + teamA.team());
    EXPECT_EQ(client.unmetBy(verifyBytes(test::signedBytes(kContent, "dev.ostrel.app", nullptr))),
              "ad hoc signed, but team " + teamA.team() + " is required");
    EXPECT_EQ(client.unmetBy(verifyBytes(kContent)), "not signed");
    EXPECT_TRUE(
        clientRequirement(std::nullopt)
            .isSatisfiedBy(verifyBytes(test::signedBytes(kContent, "dev.ostrel.app", nullptr))));
}

TEST_F(CodeSignatureTest, OwnTeamComesFromTheRunningExecutable) {
    platform::FakeFileAccess files;
    EXPECT_EQ(CodeSignature::teamIdentifier(files), std::nullopt);
    files.put("/proc/self/exe", test::signedBytes(kContent, "dev.ostrel.helper", nullptr));
    EXPECT_EQ(CodeSignature::teamIdentifier(files), std::nullopt);
    files.put("/proc/self/exe", test::signedBytes(kContent, "dev.ostrel.helper", &teamA));
    EXPECT_EQ(CodeSignature::teamIdentifier(files), teamA.team());
    files.put("/proc/self/exe", test::signedBytes(kContent, "dev.ostrel.helper", &teamA) + "!");
    EXPECT_EQ(CodeSignature::teamIdentifier(files), std::nullopt);
}

}  // namespace
