#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <plist/plist.h>

#include "platform/Preferences.h"
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zentary {
namespace {

using test::readFile;
using test::ScopedEnv;
using test::ScratchDir;
using test::writeFile;

const std::string kDomain = "com.tarvell.zentaryQ300.scands";

class PreferencesTest : public ::testing::Test {
protected:
    ScratchDir mDir;
    ScopedEnv mConfig{"XDG_CONFIG_HOME", mDir.path().string()};
    std::filesystem::path mFile = mDir.path() / (kDomain + ".plist");
    std::filesystem::path mAside = mDir.path() / (kDomain + ".plist.corrupt");
};

TEST_F(PreferencesTest, RoundTripThroughTheFile)
{
    const std::optional<std::int64_t> none;
    const std::optional<std::string> noText;
    Preferences writer(kDomain);
    EXPECT_EQ(writer.filePath(), mFile);
    EXPECT_EQ(writer.integer("resolution"), std::nullopt);
    for (std::int64_t value : {std::int64_t(600), std::int64_t(-5), INT64_MAX, INT64_MIN}) {
        ASSERT_TRUE(writer.setInteger("resolution", value));
        ASSERT_TRUE(writer.setString("nativeFormat", "PICT \xC3\xA9 <&>"));
        Preferences reader(kDomain);  // a second object sees what the first wrote
        EXPECT_EQ(std::pair(reader.integer("resolution"), reader.string("nativeFormat")),
                  std::pair(std::optional(value), std::optional<std::string>("PICT \xC3\xA9 <&>")));
        // Each read as the other type is absent.
        EXPECT_EQ(std::pair(reader.integer("nativeFormat"), reader.string("resolution")), std::pair(none, noText));
    }
    struct stat info {};
    ASSERT_EQ(::stat(mFile.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_NE(readFile(mFile).find("<plist"), std::string::npos);  // written as XML
    auto entries = std::distance(std::filesystem::directory_iterator(mDir.path()), {});
    EXPECT_EQ(entries, 1);  // no temporary left behind
}

TEST_F(PreferencesTest, CorruptFileReadsEmptyAndIsKeptAside)
{
    const std::string cases[] = {
        "garbage",
        test::xmlPlist("<dict><key>imageType</key><integer>2</integer>"),  // cut short
        test::xmlPlist("<array/>"),
        "",
    };
    for (const auto& corrupt : cases) {
        SCOPED_TRACE(corrupt);
        writeFile(mAside, "older");
        writeFile(mFile, corrupt);
        Preferences prefs(kDomain);
        EXPECT_EQ(prefs.integer("imageType"), std::nullopt);
        EXPECT_EQ(readFile(mFile), corrupt);  // reading leaves it alone
        ASSERT_TRUE(prefs.setInteger("resolution", 150));
        EXPECT_EQ(readFile(mAside), corrupt);
        EXPECT_EQ(prefs.integer("resolution"), 150);
    }
}

TEST_F(PreferencesTest, SymlinkInPlaceOfTheFileIsReplacedNotFollowed)
{
    auto victim = mDir.path() / "victim";
    writeFile(victim, "precious");
    std::filesystem::create_symlink(victim, mFile);
    ASSERT_TRUE(Preferences(kDomain).setInteger("resolution", 75));
    EXPECT_EQ(readFile(victim), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(mFile));
    EXPECT_EQ(Preferences(kDomain).integer("resolution"), 75);
}

}  // namespace
}  // namespace zentary
