// The whole road with the real windows: the zentary-ui helper draws the
// settings dialog and the progress window (offscreen), a stand-in user
// presses Scan, and each window is kept as a picture under
// build/test-output/dialog/.
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

TEST(Dialog, ScanPressedInTheHelperLeadsToATransferAndBack)
{
    ScratchDir scratch;
    std::filesystem::path pictures = test::buildDir() / "test-output/dialog";
    std::filesystem::remove_all(pictures);
    std::filesystem::create_directories(pictures);
    ScopedEnv tmp("TMPDIR", scratch.path().string());
    ScopedEnv config("XDG_CONFIG_HOME", scratch.path().string());
    ScopedEnv log("ZENTARY_UI_LOG", (scratch.path() / "ui.log").string());
    ScopedEnv scanner("ZENTARY_SCANNER", "emulator:mbps=20");  // slow enough to see progress
    ScopedEnv ui("ZENTARY_UI", "helper");
    ScopedEnv platform("QT_QPA_PLATFORM", "offscreen");
    ScopedEnv autopilot("ZENTARY_UI_AUTOPILOT", pictures.string());
    ScopedEnv bundle("ZENTARY_BUNDLE", std::nullopt);

    std::string error;
    auto source = DataSourceManager::load(test::dataSourcePath().string(), &error);
    ASSERT_TRUE(source) << error;
    std::strcpy(source->application().Manufacturer, "Apple Computer, Inc.");  // Image Capture: the dialog returns
    ASSERT_EQ(source->open(), TWRC_SUCCESS);
    ASSERT_EQ(test::setOneValue(*source, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY), TWRC_SUCCESS);
    ASSERT_EQ(test::enable(*source, true), TWRC_SUCCESS);
    ASSERT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_XFERREADY));
    EXPECT_EQ(test::pending(*source, MSG_ENDXFER), TWRC_SUCCESS);
    // 0.25 s later the dialog is back, and pressed again.
    ASSERT_EQ(source->waitForMessage(60s), std::optional<TW_UINT16>(MSG_XFERREADY));
    EXPECT_EQ(test::pending(*source, MSG_RESET), TWRC_SUCCESS);
    EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
    EXPECT_EQ(source->close(), TWRC_SUCCESS);

    int dialogs = 0, progress = 0;
    for (const auto& entry : std::filesystem::directory_iterator(pictures)) {
        std::string name = entry.path().filename().string();
        EXPECT_GT(entry.file_size(), 1000u) << name;
        if (name.rfind("dialog-", 0) == 0) ++dialogs;
        if (name.rfind("progress-", 0) == 0) ++progress;
    }
    EXPECT_EQ(dialogs, 2);
    EXPECT_GE(progress, 1);
    std::string events;
    for (const auto& line : test::readLines(scratch.path() / "ui.log")) events += line + "\n";
    EXPECT_NE(events.find("dialog.scan"), std::string::npos) << events;
    EXPECT_NE(events.find("progress.shown"), std::string::npos) << events;
}

}  // namespace
}  // namespace zentary
