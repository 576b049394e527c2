// The data source as a TWAIN manager sees it: loaded with dlopen, asked for
// its identity, opened, sent triplets, closed and unloaded.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/SourceTest.h"

namespace zentary {
namespace {

using namespace twain;
using test::ScopedEnv;
using test::loadSource;

// Every test runs with the emulated scanner, no windows, its own
// preferences and its own user-interface log.
using DataSourceTest = test::SourceTest;

TEST(DataSourceExports, OnlyDsEntryIsExported)
{
    std::string symbols = test::commandOutput("nm -D --defined-only " + test::dataSourcePath().string());
    EXPECT_EQ(symbols.substr(symbols.find(' ', symbols.find(' ') + 1) + 1), "DS_Entry\n") << symbols;
}

TEST_F(DataSourceTest, IdentityIsTheSameBeforeOpenWhileOpenAndAfterReload)
{
    TW_IDENTITY first{}, whileOpen{}, reloaded{};
    {
        auto source = loadSource();
        EXPECT_EQ(source->call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &first), TWRC_SUCCESS);
        EXPECT_EQ(source->call(DG_CONTROL, DAT_IDENTITY, MSG_GET, nullptr), TWRC_SUCCESS);
        ASSERT_EQ(source->open(), TWRC_SUCCESS) << source->conditionCode();
        EXPECT_EQ(source->call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &whileOpen), TWRC_SUCCESS);
    }
    auto source = loadSource();
    EXPECT_EQ(source->call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &reloaded), TWRC_SUCCESS);

    EXPECT_EQ(std::memcmp(&first, &whileOpen, sizeof(first)), 0);
    EXPECT_EQ(std::memcmp(&first, &reloaded, sizeof(first)), 0);
    using Names = std::tuple<std::string, std::string, std::string, std::string>;
    // The build's bundle says 1.0.0, build 1.
    EXPECT_EQ(Names(first.Manufacturer, first.ProductFamily, first.ProductName, first.Version.Info),
              Names("Tarvell Co.", "Tarvell Zentary", "Tarvell Zentary Q305 MFP", "1.0.0 (1)"));
    EXPECT_EQ(std::vector<int>({int(first.Id), first.ProtocolMajor, first.ProtocolMinor, first.Version.Language,
                                first.Version.Country, first.Version.MajorNum, first.Version.MinorNum}),
              std::vector<int>({0, 1, 9, TWLG_USA, TWCY_USA, 1, 0}));
    EXPECT_EQ(first.SupportedGroups & 0xFFFF, DG_CONTROL | DG_IMAGE);
    EXPECT_TRUE(first.SupportedGroups & DF_DS2);
}

TEST_F(DataSourceTest, TripletsWithoutAnEngineFailWithTheirCodes)
{
    auto source = loadSource();
    TW_STATUS status{};
    TW_UINT32 group = 0;
    struct Case {
        const char* what;
        TW_UINT32 dg;
        TW_UINT16 dat, msg;
        TW_MEMREF data;
        TW_UINT16 expected;
    } cases[] = {
        {"image triplet", DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &status, TWCC_SEQERROR},
        {"control triplet", DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group, TWCC_SEQERROR},
        {"close", DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source->source(), TWCC_SEQERROR},
        {"audio group", DG_AUDIO, DAT_NULL, MSG_GET, &status, TWCC_BADPROTOCOL},
        {"unknown group", 0x80, DAT_STATUS, MSG_GET, &status, TWCC_BADPROTOCOL},
        {"identity other message", DG_CONTROL, DAT_IDENTITY, MSG_SET, &source->source(), TWCC_BADPROTOCOL},
        {"status other message", DG_CONTROL, DAT_STATUS, MSG_SET, &status, TWCC_BADPROTOCOL},
        {"status without data", DG_CONTROL, DAT_STATUS, MSG_GET, nullptr, TWCC_BADVALUE},
        {"entry point without data", DG_CONTROL, DAT_ENTRYPOINT, MSG_SET, nullptr, TWCC_BADVALUE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(source->call(c.dg, c.dat, c.msg, c.data), TWRC_FAILURE) << c.what;
        // DAT_STATUS reports the code once; having succeeded, it clears it.
        EXPECT_EQ(source->conditionCode(), c.expected) << c.what;
        EXPECT_EQ(source->conditionCode(), TWCC_SUCCESS) << c.what;
    }
}

// The next session starts from the image type and resolution the dialog
// remembered; a stored value outside its range counts as none.
TEST_F(DataSourceTest, OpenStartsFromTheRememberedTypeAndResolution)
{
    struct Case {
        const char* stored;
        TW_UINT32 pixelType;
        TW_INT16 dpi;
    } cases[] = {
        {"", TWPT_RGB, 300},
        {"<key>imageType</key><integer>2</integer><key>resolution</key><integer>600</integer>", TWPT_GRAY, 600},
        {"<key>imageType</key><integer>7</integer><key>resolution</key><integer>70000</integer>", TWPT_RGB, 300},
    };
    for (const Case& c : cases) {
        test::writeFile(scratch("com.tarvell.zentaryQ300.scands.plist"),
                        test::xmlPlist(std::string("<dict>") + c.stored + "</dict>"));
        auto source = openAs();
        ASSERT_TRUE(source);
        EXPECT_EQ(test::currentOneValue(*source, ICAP_PIXELTYPE), c.pixelType) << c.stored;
        EXPECT_EQ(test::currentOneValue(*source, ICAP_XRESOLUTION), test::fix32Item(c.dpi)) << c.stored;
    }
}

TEST_F(DataSourceTest, OpenWithoutAScannerShowsAlertTwo)
{
    ScopedEnv noEmulator("ZENTARY_SCANNER", std::nullopt);
    auto source = loadSource();
    EXPECT_EQ(test::failCode(*source, source->open()), TWCC_OPERATIONERROR);
    EXPECT_NE(uiLog().find("\"row\":2,"), std::string::npos) << uiLog();
    EXPECT_NE(uiLog().find("No scanners are available."), std::string::npos) << uiLog();
}

TEST_F(DataSourceTest, OpenWithoutCapabilityDefinitionsFailsForLowMemory)
{
    // A copy of the bundle whose capability definitions are missing.
    std::filesystem::path bundle = mScratch.path() / "Broken.bundle";
    std::filesystem::copy(test::bundlePath(), bundle, std::filesystem::copy_options::recursive);
    std::filesystem::remove_all(bundle / "Resources/Capabilities");
    ScopedEnv useIt("ZENTARY_BUNDLE", bundle.string());

    auto source = loadSource();
    EXPECT_EQ(test::failCode(*source, source->open()), TWCC_LOWMEMORY);
    auto log = test::readLines(scratch("ui.log"));
    ASSERT_EQ(log.size(), 2u);
    EXPECT_NE(log[0].find("open-failed"), std::string::npos) << log[0];
    EXPECT_NE(log[0].find("Capabilities"), std::string::npos) << log[0];
    EXPECT_NE(log[1].find("\"row\":1"), std::string::npos) << log[1];
}

}  // namespace
}  // namespace zentary
