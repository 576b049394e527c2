// Where a file transfer writes: DAT_SETUPFILEXFER and DAT_SETUPFILEXFER2.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "support/SourceTest.h"

namespace zentary {
namespace {

using namespace twain;

class FileSetupTest : public test::SourceTest {
protected:
    std::unique_ptr<DataSourceManager> mSource;

    void SetUp() override
    {
        ASSERT_TRUE(mSource = openAs());
        ASSERT_EQ(test::setOneValue(*mSource, ICAP_XFERMECH, TWTY_UINT16, TWSX_FILE2), TWRC_SUCCESS);
    }
    TW_UINT16 call2(TW_UINT16 message, const std::string& name = "", TW_UINT16 format = TWFF_TIFF)
    {
        return setupFile(*mSource, message, name, format);
    }
    std::string path(const char* name) const { return scratch(name).string(); }
};

TEST_F(FileSetupTest, SettingATargetCreatesOrEmptiesIt)
{
    std::ofstream(path("full.tif")) << "old contents";
    std::filesystem::create_symlink(path("elsewhere"), path("link.tif"));
    struct Case {
        const char* what;
        std::string name;
        TW_UINT16 format;
        TW_UINT16 rc, code;
        std::string reported;  // the name MSG_GET then reports
        TW_UINT16 reportedFormat;
    } cases[] = {
        {"new file", path("new.tif"), TWFF_TIFF, TWRC_SUCCESS, 0, path("new.tif"), TWFF_TIFF},
        {"existing file", path("full.tif"), TWFF_JFIF, TWRC_SUCCESS, 0, path("full.tif"), TWFF_JFIF},
        {"unsupported format", path("b.bmp"), TWFF_BMP, TWRC_FAILURE, TWCC_BADVALUE, path("b.bmp"), TWFF_TIFF},
        {"missing directory", path("no/such.tif"), TWFF_PICT, TWRC_FAILURE, TWCC_BADVALUE,
         path("ZentaryScan.tmp"), TWFF_PICT},
        {"planted symlink", path("link.tif"), TWFF_TIFF, TWRC_FAILURE, TWCC_BADVALUE, path("ZentaryScan.tmp"),
         TWFF_TIFF},
        {"a directory", mScratch.path().string(), TWFF_TIFF, TWRC_FAILURE, TWCC_BADVALUE, path("ZentaryScan.tmp"),
         TWFF_TIFF},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TW_UINT16 rc = call2(MSG_SET, c.name, c.format);
        EXPECT_EQ(std::pair(rc, mSource->conditionCode()), std::pair(c.rc, c.code));
        ASSERT_EQ(call2(MSG_GET), TWRC_SUCCESS);
        EXPECT_EQ(std::pair(std::string(mName), TW_UINT16(mFile.Format)), std::pair(c.reported, c.reportedFormat));
    }
    EXPECT_EQ(std::filesystem::file_size(path("new.tif")), 0u);
    EXPECT_EQ(std::filesystem::file_size(path("full.tif")), 0u);
    EXPECT_FALSE(std::filesystem::exists(path("elsewhere")));
}

TEST_F(FileSetupTest, AnotherUsersFileInASharedFolderIsLeftAlone)
{
    if (geteuid() != 0) GTEST_SKIP() << "making another user's file needs root";
    std::filesystem::create_directory(path("shared"));
    ASSERT_EQ(chmod(path("shared").c_str(), 01777), 0);
    std::ofstream(path("shared/ZentaryScan.tmp")) << "theirs";
    ASSERT_EQ(chmod(path("shared/ZentaryScan.tmp").c_str(), 0666), 0);
    ASSERT_EQ(chown(path("shared/ZentaryScan.tmp").c_str(), 65534, 65534), 0);
    EXPECT_EQ(test::failCode(*mSource, call2(MSG_SET, path("shared/ZentaryScan.tmp"))), TWCC_BADVALUE);
    EXPECT_EQ(std::filesystem::file_size(path("shared/ZentaryScan.tmp")), 6u);
}

}  // namespace
}  // namespace zentary
