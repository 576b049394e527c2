// The whole road with the real windows: the zentary-ui helper draws the
// settings dialog and the progress window (under Xvfb when there is a
// display, offscreen otherwise), a stand-in user presses its buttons, and
// each window is kept as a picture under build/test-output/dialog-<case>/.
#include <gtest/gtest.h>

#include "support/SourceTest.h"

namespace zentary {
namespace {

using namespace twain;
using namespace std::chrono_literals;
using test::ScopedEnv;

class DialogTest : public test::SourceTest {
protected:
    ScopedEnv mHelper{"ZENTARY_UI", "helper"};
    ScopedEnv mPlatform{"QT_QPA_PLATFORM", std::getenv("DISPLAY") ? std::nullopt : std::optional<std::string>("offscreen")};

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
        auto source = openAs(manufacturer);
        if (!source) return nullptr;
        EXPECT_EQ(test::setOneValue(*source, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY), TWRC_SUCCESS);
        EXPECT_EQ(test::enable(*source, true), TWRC_SUCCESS);
        return source;
    }

    int pictures(const std::string& prefix, const std::string& suffix = ".png") const
    {
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(mPictures)) {
            std::string name = entry.path().filename().string();
            if (name.rfind(prefix, 0) != 0 || !name.ends_with(suffix)) continue;
            EXPECT_GT(entry.file_size(), 1000u) << entry.path();
            ++count;
        }
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
    EXPECT_NE(uiLog().find("dialog.scan"), std::string::npos) << uiLog();
    EXPECT_NE(uiLog().find("progress.shown"), std::string::npos) << uiLog();
}

TEST_F(DialogTest, CancelInEitherWindowAsksTheClientToClose)
{
    struct Case {
        const char* window;
        const char* scanner;
        const char* event;
    } cases[] = {
        {"dialog", "emulator", "\"event\":\"dialog.cancel\""},
        // Slow enough that the scan is still running when Cancel is pressed.
        {"progress", "emulator:mbps=2", "\"event\":\"progress.cancel\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.window);
        std::filesystem::remove(scratch("ui.log"));
        auto source = start(std::string("cancel-") + c.window, c.scanner, "GIMP", c.window);
        ASSERT_TRUE(source);
        EXPECT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_CLOSEDSREQ));
        EXPECT_NE(uiLog().find(c.event), std::string::npos) << uiLog();
        EXPECT_EQ(rawFiles(), 0);
        EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
        EXPECT_EQ(source->close(), TWRC_SUCCESS);
        EXPECT_GE(pictures(c.window), 1);
        // The progress window stays after Cancel until it is closed, showing
        // that the cancel was taken; it is kept as it then looked.
        if (std::string(c.window) == "progress") {
            EXPECT_EQ(pictures("progress-", "-pressed.png"), 1);
        }
    }
}

}  // namespace
}  // namespace zentary
