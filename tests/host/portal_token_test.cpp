// The token by which the portal grants a screen again.
#include "capture/portal/restore_token.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace zu3host {
namespace {

class Token : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = std::filesystem::temp_directory_path() / "portal-test.XXXXXX";
        folder_ = mkdtemp(name.data());
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    std::filesystem::path folder_;
};

TEST_F(Token, IsKeptForItsOwner)
{
    // Catches a token that others can read, one that is lost, and files that are left behind.
    const auto file = folder_ / "state/screenrecord/portal-token";
    const RestoreToken token(file);
    EXPECT_EQ(token.read(), "");
    for (const char* text : {"3f1c-first", "second"}) {
        EXPECT_EQ(token.write(text), 0);
        EXPECT_EQ(token.read(), text);
    }
    struct stat found {};
    ASSERT_EQ(stat(file.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0600u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);
    EXPECT_EQ(token.write(""), 0);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(token.write(""), 0);
}

TEST_F(Token, OthersAreNotTrusted)
{
    // Catches a token that goes to the portal although the portal made none like it, or through a
    // link.
    const auto file = folder_ / "token";
    for (const std::string& text :
         {std::string("two\nlines\n"), std::string("\x1b[2J"), std::string(5000, 'a'),
          std::string("a\0b", 3), std::string("\n")}) {
        std::ofstream(file) << text;
        EXPECT_EQ(RestoreToken(file).read(), "") << text.size();
    }
    std::ofstream(folder_ / "real") << "token";
    EXPECT_EQ(RestoreToken(folder_ / "real").read(), "token");
    std::filesystem::create_symlink("real", folder_ / "link");
    EXPECT_EQ(RestoreToken(folder_ / "link").read(), "");
    EXPECT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(RestoreToken(folder_ / "pipe").read(), "");
    EXPECT_NE(RestoreToken("/dev/null/token").write("token"), 0);
    EXPECT_EQ(RestoreToken("").write("token"), 0);
}

} // namespace
} // namespace zu3host
