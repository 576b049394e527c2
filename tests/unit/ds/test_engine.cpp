// Engine creation, client detection and the identity record.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "capabilities/Capabilities.h"
#include "ds/DSIdentity.h"
#include "ds/DSPreferences.h"
#include "ds/DataSourceEngine.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

using namespace twain;
using test::ScopedEnv;
using test::ScratchDir;

void setName(char (&field)[34], const char* text)
{
    std::memset(field, 0, sizeof(field));
    std::strncpy(field, text, sizeof(field) - 1);
}

class EngineTest : public ::testing::Test {
protected:
    ScratchDir mScratch;
    ScopedEnv mScanner{"ZENTARY_SCANNER", "emulator"};
    ScopedEnv mConfig{"XDG_CONFIG_HOME", mScratch.path().string()};
    ScopedEnv mBundle{"ZENTARY_BUNDLE", test::bundlePath().string()};
    ScopedEnv mLog{"ZENTARY_UI_LOG", std::nullopt};

    std::unique_ptr<DataSourceEngine> open(const char* manufacturer, const char* product)
    {
        TW_IDENTITY client{}, source{};
        setName(client.Manufacturer, manufacturer);
        setName(client.ProductName, product);
        source.Id = 7;
        TW_UINT16 code = 0;
        auto engine = DataSourceEngine::initWithOrigin(&client, &source, &code);
        EXPECT_TRUE(engine) << "condition code " << code;
        return engine;
    }
};

TEST_F(EngineTest, RecognisesImageCaptureAndReadirisByPrefix)
{
    struct Case {
        const char *manufacturer, *product;
        bool imageCapture, readiris;
    } cases[] = {
        {"Apple Computer, Inc.", "Image Capture", true, false},
        {"Apple", "Readiris Pro", true, false},  // Apple wins
        {"I.R.I.S.", "Readiris Pro 12", false, true},
        {"I.R.I.S.", "Readiri", false, false},
        {"apple", "readiris", false, false},  // byte comparisons, case counts
        {"GIMP", "gimp", false, false},
    };
    for (const Case& c : cases) {
        auto engine = open(c.manufacturer, c.product);
        ASSERT_TRUE(engine);
        EXPECT_EQ(std::tuple(engine->clientIsImageCapture(), engine->clientIsReadiris(), engine->twainState(),
                             TW_UINT32(engine->source().Id)),
                  std::tuple(c.imageCapture, c.readiris, 4, 7u))
            << c.manufacturer << "/" << c.product;
    }
}

TEST_F(EngineTest, StartsFromTheRememberedImageTypeAndResolution)
{
    struct Case {
        std::optional<std::int32_t> imageType;
        std::optional<std::int16_t> resolution;
        std::int64_t pixelType, dpi;
    } cases[] = {
        {std::nullopt, std::nullopt, TWPT_RGB, 300},
        {2, 600, TWPT_GRAY, 600},
        {1, 150, TWPT_RGB, 150},
        {7, 1200, TWPT_RGB, 1200},  // any other stored type means colour
    };
    for (const Case& c : cases) {
        std::filesystem::remove_all(mScratch.path() / "com.tarvell.zentaryQ300.scands.plist");
        if (c.imageType) {
            ASSERT_TRUE(DSPreferences::setImageTypePreference(*c.imageType));
        }
        if (c.resolution) {
            ASSERT_TRUE(DSPreferences::setResolutionPreference(*c.resolution));
        }
        auto engine = open("GIMP", "gimp");
        ASSERT_TRUE(engine);
        EXPECT_EQ(engine->capabilities().currentValue(ICAP_PIXELTYPE), CapabilityValue(c.pixelType));
        EXPECT_EQ(engine->capabilities().currentValue(ICAP_XRESOLUTION),
                  CapabilityValue::fix32(static_cast<std::int16_t>(c.dpi), 0));
    }
}

TEST(Identity, VersionComesFromTheBundleAndFitsItsField)
{
    struct Case {
        const char* entries;
        TW_UINT16 major, minor;
        const char* info;
    } cases[] = {
        {"<key>CFBundleShortVersionString</key><string>1.2.3</string><key>CFBundleVersion</key><string>45</string>",
         1, 2, "1.2.3 (45)"},
        {"<key>CFBundleShortVersionString</key><string>3</string><key>CFBundleVersion</key><string>12</string>", 0,
         0, "3 (12)"},
        {"<key>CFBundleShortVersionString</key><string>2.x</string><key>CFBundleVersion</key><string>9</string>", 2,
         0, "2.x (9)"},
        {"<key>CFBundleVersion</key><string>12</string>", 0, 0, "0.0 (0)"},
        {"<key>CFBundleShortVersionString</key><string>10.20.30.40.50.60.70</string>"
         "<key>CFBundleVersion</key><string>1234567890123456789</string>",
         10, 20, "10.20.30.40.50.60.70 (12345678901"},  // 33 characters
    };
    for (const Case& c : cases) {
        ScratchDir dir;
        test::writeFile(dir.path() / "B.bundle/Info.plist",
                        test::xmlPlist(std::string("<dict><key>CFBundleIdentifier</key>"
                                                   "<string>com.tarvell.zentaryQ305.scands</string>") +
                                       c.entries + "</dict>"));
        ScopedEnv bundle("ZENTARY_BUNDLE", (dir.path() / "B.bundle").string());
        TW_IDENTITY identity;
        std::memset(&identity, 0xAB, sizeof(identity));
        fillIdentity(identity);
        EXPECT_EQ(std::tuple(TW_UINT16(identity.Version.MajorNum), TW_UINT16(identity.Version.MinorNum),
                             std::string(identity.Version.Info), identity.Version.Info[33], TW_UINT32(identity.Id)),
                  std::tuple(c.major, c.minor, c.info, '\0', 0u))
            << c.entries;
    }
}

}  // namespace
}  // namespace zentary
