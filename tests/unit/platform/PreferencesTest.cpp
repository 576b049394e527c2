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

TEST_F(PreferencesTest, ValuesOfOtherTypes)
{
    struct Case {
        std::string value;
        std::optional<std::int64_t> integer;
        std::optional<std::string> string;
    };
    const Case cases[] = {
        {"<real>600.0</real>", 600, std::nullopt},   {"<real>-2.0</real>", -2, std::nullopt},
        {"<real>600.5</real>", std::nullopt, std::nullopt}, {"<real>1e300</real>", std::nullopt, std::nullopt},
        {"<string>600</string>", std::nullopt, "600"}, {"<true/>", std::nullopt, std::nullopt},
        {"<array><integer>1</integer></array>", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        writeFile(mFile, test::xmlPlist("<dict><key>k</key>" + c.value + "</dict>"));
        EXPECT_EQ(Preferences(kDomain).integer("k"), c.integer);
        EXPECT_EQ(Preferences(kDomain).string("k"), c.string);
    }
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "k", plist_new_uint(2));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    writeFile(mFile, std::string(bytes, length));
    plist_to_bin_free(bytes);
    plist_free(dict);
    // Binary property lists are not read: libplist cannot read every one of
    // them without aborting the process.
    EXPECT_EQ(Preferences(kDomain).integer("k"), std::nullopt);
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

TEST(Preferences, FailedWriteReturnsFalseAndChangesNothing)
{
    ScratchDir dir;
    writeFile(dir.path() / "file", "x");
    {
        // A configuration directory below a regular file can never be made.
        ScopedEnv config("XDG_CONFIG_HOME", (dir.path() / "file/config").string());
        EXPECT_FALSE(Preferences(kDomain).setInteger("resolution", 600));
    }
    auto locked = dir.path() / "locked";
    ScopedEnv config("XDG_CONFIG_HOME", locked.string());
    ASSERT_TRUE(Preferences(kDomain).setInteger("resolution", 600));
    std::string before = readFile(locked / (kDomain + ".plist"));
    std::filesystem::permissions(locked, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    if (int probe = ::open((locked / "probe").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600); probe >= 0) {
        ::close(probe);
        GTEST_SKIP() << "directory permissions do not bind for this user (root)";
    }
    EXPECT_FALSE(Preferences(kDomain).setInteger("resolution", 300));
    EXPECT_EQ(readFile(locked / (kDomain + ".plist")), before);
}

}  // namespace
}  // namespace zentary
