// The whole road with the real windows: the zentary-ui helper draws the
// settings dialog and the progress window (under Xvfb when there is a
// display, offscreen otherwise), a stand-in user presses its buttons, and
// each window is kept as a picture under build/test-output/dialog-<case>/.
#include <gtest/gtest.h>

#include "DataSourceManager.h"
#include "support/TestEnvironment.h"
#include "support/Triplets.h"

namespace zentary {
namespace {

using namespace twain;
using namespace std::chrono_literals;
using test::ScopedEnv;
using test::ScratchDir;

struct Run {
    std::unique_ptr<DataSourceManager> source;
    std::filesystem::path pictures;
    std::string events;
};

class DialogTest : public ::testing::Test {
protected:
    ScratchDir mScratch;
    ScopedEnv mTmp{"TMPDIR", mScratch.path().string()};
    ScopedEnv mConfig{"XDG_CONFIG_HOME", mScratch.path().string()};
    ScopedEnv mLog{"ZENTARY_UI_LOG", (mScratch.path() / "ui.log").string()};
    ScopedEnv mUi{"ZENTARY_UI", "helper"};
    ScopedEnv mPlatform{"QT_QPA_PLATFORM", std::getenv("DISPLAY") ? std::nullopt : std::optional<std::string>("offscreen")};
    ScopedEnv mBundle{"ZENTARY_BUNDLE", std::nullopt};

    // Opens the source as `manufacturer` with the autopilot pressing Cancel
    // in `cancelIn` ("" presses Scan), and enables it with the dialog.
    std::unique_ptr<DataSourceManager> start(const std::string& name, const char* scanner, const char* manufacturer,
                                             const std::string& cancelIn)
    {
        // Offscreen and Xvfb runs may go side by side: separate folders.
        mPictures = test::buildDir() / ("test-output/dialog-" + name + (std::getenv("DISPLAY") ? "-x11" : ""));
        std::filesystem::remove_all(mPictures);
        std::filesystem::create_directories(mPictures);
        setenv("ZENTARY_SCANNER", scanner, 1);
        setenv("ZENTARY_UI_AUTOPILOT", mPictures.c_str(), 1);
        setenv("ZENTARY_UI_AUTOPILOT_CANCEL", cancelIn.c_str(), 1);
        std::string error;
        auto source = DataSourceManager::load(test::dataSourcePath().string(), &error);
        EXPECT_TRUE(source) << error;
        if (!source) return nullptr;
        std::strcpy(source->application().Manufacturer, manufacturer);
        EXPECT_EQ(source->open(), TWRC_SUCCESS);
        EXPECT_EQ(test::setOneValue(*source, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY), TWRC_SUCCESS);
        EXPECT_EQ(test::enable(*source, true), TWRC_SUCCESS);
        return source;
    }

    int pictures(const std::string& prefix) const
    {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(mPictures)) {
            if (entry.path().filename().string().rfind(prefix, 0) != 0) continue;
            EXPECT_GT(entry.file_size(), 1000u) << entry.path();
            ++count;
        }
        return count;
    }

    std::string events() const
    {
        std::string all;
        for (const auto& line : test::readLines(mScratch.path() / "ui.log")) all += line + "\n";
        return all;
    }

    int rawFiles() const
    {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(mScratch.path()))
            if (entry.path().extension() == ".raw") ++count;
        return count;
    }

    std::filesystem::path mPictures;
};

TEST_F(DialogTest, ScanPressedInTheDialogLeadsToATransferAndTheDialogReturns)
{
    // Image Capture: after each transfer the dialog comes back for the next page.
    auto source = start("scan", "emulator:mbps=20", "Apple Computer, Inc.", "");
    ASSERT_TRUE(source);
    ASSERT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_XFERREADY));
    EXPECT_EQ(test::pending(*source, MSG_ENDXFER), TWRC_SUCCESS);
    ASSERT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_XFERREADY));
    EXPECT_EQ(test::pending(*source, MSG_RESET), TWRC_SUCCESS);
    EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
    EXPECT_EQ(source->close(), TWRC_SUCCESS);
    EXPECT_EQ(pictures("dialog-"), 2);
    EXPECT_GE(pictures("progress-"), 1);
    EXPECT_NE(events().find("dialog.scan"), std::string::npos) << events();
    EXPECT_NE(events().find("progress.shown"), std::string::npos) << events();
}

TEST_F(DialogTest, CancelInEitherWindowAsksTheClientToClose)
{
    struct Case {
        const char* window;
        const char* scanner;
        const char* event;
    } cases[] = {
        {"dialog", "emulator", "dialog.cancel"},
        // Slow enough that the scan is still running when Cancel is pressed.
        {"progress", "emulator:mbps=2", "progress.cancel"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.window);
        std::filesystem::remove(mScratch.path() / "ui.log");
        auto source = start(std::string("cancel-") + c.window, c.scanner, "GIMP", c.window);
        ASSERT_TRUE(source);
        EXPECT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_CLOSEDSREQ));
        EXPECT_NE(events().find(c.event), std::string::npos) << events();
        EXPECT_EQ(rawFiles(), 0);
        EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
        EXPECT_EQ(source->close(), TWRC_SUCCESS);
        EXPECT_GE(pictures(c.window), 1);
    }
}

}  // namespace
}  // namespace zentary
