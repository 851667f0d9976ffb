// ostrel-codesign run in-process on real files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "codesign.h"
#include "support/temp_dir.h"

namespace {

using namespace ostrel;
using testing::HasSubstr;

class CodesignTest : public testing::Test {
  protected:
    test::TempDir dir;
    std::ostringstream out, err;

    int run(std::vector<std::string> args) {
        out.str("");
        err.str("");
        std::vector<const char *> argv{"ostrel-codesign"};
        for (const std::string &arg : args) {
            argv.push_back(arg.c_str());
        }
        return codesign::run(static_cast<int>(argv.size()), argv.data(),
                             {&out, &err, &platform::realFileAccess()});
    }
};

// Keygen never replaces a key; signing again replaces the block and keeps the file's mode.
TEST_F(CodesignTest, KeygenSignVerifyAndShow) {
    std::string key = dir.path() + "/team.key";
    ASSERT_EQ(run({"keygen", "--out", key}), 0) << err.str();
    std::string team = out.str();  // what signing with the key names below
    EXPECT_EQ(std::filesystem::status(key).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(run({"keygen", "--out", key}), 1);
    EXPECT_THAT(err.str(), HasSubstr("exists already"));

    std::string file = dir.put("prog", "program bytes");
    ASSERT_EQ(run({"sign", "--key", key, "--identifier", "dev.ostrel.helper", file}), 0);
    EXPECT_EQ(out.str(), file + ": signed as dev.ostrel.helper by team " + team);
    ::chmod(key.c_str(), 0640);
    EXPECT_EQ(run({"sign", "--key", key, "--identifier", "dev.ostrel.helper", file}), 1);
    EXPECT_THAT(err.str(), HasSubstr("may be accessed by others (mode 0640)"));

    ::chmod(file.c_str(), 0751);
    ASSERT_EQ(run({"sign", "--adhoc", "--identifier", "dev.ostrel.cli", file}), 0) << err.str();
    std::string once = dir.read("prog");
    ASSERT_EQ(run({"sign", "--adhoc", "--identifier", "dev.ostrel.cli", file}), 0);
    EXPECT_EQ(dir.read("prog"), once);
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0751));

    EXPECT_EQ(run({"verify", file, "--identifier", "dev.ostrel.cli"}), 0) << err.str();
    EXPECT_EQ(run({"verify", file, "--identifier", "dev.ostrel.app"}), 1);
    EXPECT_EQ(run({"verify", file, "--team", "D2ETWBVQP1"}), 1);
    EXPECT_EQ(err.str(), file + ": ad hoc signed, but team D2ETWBVQP1 is required\n");

    ASSERT_EQ(run({"show", file, "--json"}), 0);
    nlohmann::json shown = nlohmann::json::parse(out.str());
    EXPECT_EQ(std::tuple(shown["identifier"], shown["adhoc"], shown["valid"]),
              std::tuple("dev.ostrel.cli", true, true));

    std::ofstream(file, std::ios::app) << "appended";
    ASSERT_EQ(run({"show", file}), 0);
    EXPECT_THAT(out.str(), HasSubstr("signature   not signed"));

    EXPECT_EQ(run({"sign", "--identifier", "dev.ostrel.cli", dir.put("f", "x")}), 2);
    EXPECT_THAT(err.str(), HasSubstr("needs --key KEY or --adhoc"));
    EXPECT_EQ(run({"show", dir.path() + "/missing"}), 1);
    EXPECT_THAT(err.str(), HasSubstr("No such file or directory"));
    EXPECT_EQ(run({"sign", "--adhoc", "--identifier", "a", dir.path()}), 1);
    EXPECT_THAT(err.str(), HasSubstr("is not a regular file"));
    std::string link = dir.path() + "/link";
    ::symlink(dir.put("target", "x").c_str(), link.c_str());
    EXPECT_EQ(run({"sign", "--adhoc", "--identifier", "a", link}), 1);
    EXPECT_THAT(err.str(), HasSubstr("is a symbolic link"));
}

}  // namespace
