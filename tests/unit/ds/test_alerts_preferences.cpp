// The numbered alerts and the two remembered preferences.
#include <gtest/gtest.h>

#include <fstream>

#include "ds/DSAlerts.h"
#include "ds/DSPreferences.h"
#include "platform/Alerts.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

using test::ScopedEnv;
using test::ScratchDir;

// Presses a chosen button and remembers what it was shown.
class PressButton : public AlertPresenter {
public:
    explicit PressButton(int answer) : mAnswer(answer) {}
    int present(const AlertRequest& request) override
    {
        shown.push_back(request);
        return mAnswer;
    }
    std::vector<AlertRequest> shown;

private:
    int mAnswer;
};

class AlertsTest : public ::testing::Test {
protected:
    ScratchDir mScratch;
    ScopedEnv mBundle{"ZENTARY_BUNDLE", test::bundlePath().string()};
    ScopedEnv mLog{"ZENTARY_UI_LOG", (mScratch.path() / "ui.log").string()};
    ScopedEnv mLanguage{"LANG", "C"};
    void TearDown() override { alerts::setPresenter(nullptr); }
};

TEST_F(AlertsTest, RowsAreShownWithTheirTextsAndButtonsInOrder)
{
    struct Case {
        int row, answer;
        const char* message;
        const char* informative;
        std::vector<std::string> buttons;
        bool systemModal;
    } cases[] = {
        {8, 1000, "Could not acquire the scanned image", "Please scan again at a lower resolution.", {"OK"}, false},
        {5, 1002, "The current image has unapplied changes, what would you like to do?", "",
         {"Apply", "Cancel", "Discard"}, false},
        {6, 1001, "All images will be discarded!", "", {"OK", "Cancel"}, false},
        {12, 1000, "The configuration is not supported.",
         "This configuration is not supported by the scanner. Close the scanner window and enable the \"Use TWAIN "
         "software\" option for this scanner in the \"Image Capture Devices\" dialog displayed by selecting the "
         "\"Browse Devices...\" menu item from the \"Devices\" menu.",
         {"OK"}, true},
    };
    for (const Case& c : cases) {
        auto presenter = std::make_shared<PressButton>(c.answer);
        alerts::setPresenter(presenter);
        int answer = c.systemModal ? DSAlerts::displaySystemModalMessage(c.row) : DSAlerts::displayMessage(c.row);
        EXPECT_EQ(answer, c.answer) << c.row;
        ASSERT_EQ(presenter->shown.size(), 1u);
        const AlertRequest& shown = presenter->shown[0];
        // "Ok" is translated by the English table.
        EXPECT_EQ(std::tuple(shown.row, shown.message, shown.informative, shown.buttons, shown.systemModal),
                  std::tuple(c.row, c.message, c.informative, c.buttons, c.systemModal));
    }
}

TEST_F(AlertsTest, NothingIsShownOutsideTheTableOrWithoutTheBundle)
{
    auto presenter = std::make_shared<PressButton>(1000);
    alerts::setPresenter(presenter);
    EXPECT_EQ(DSAlerts::displayMessage(0), 0);
    EXPECT_EQ(DSAlerts::displayMessage(13), 0);
    EXPECT_EQ(DSAlerts::displayMessage(-1), 0);
    {
        ScopedEnv missing("ZENTARY_BUNDLE", (mScratch.path() / "nowhere").string());
        EXPECT_EQ(DSAlerts::displayMessage(1), 0);
    }
    EXPECT_TRUE(presenter->shown.empty());
    // A system alert that fails counts as its first button.
    alerts::setPresenter(std::make_shared<PressButton>(0));
    EXPECT_EQ(DSAlerts::displaySystemModalMessage(11), 1000);
}

class PreferencesTest : public ::testing::Test {
protected:
    ScratchDir mScratch;
    ScopedEnv mConfig{"XDG_CONFIG_HOME", mScratch.path().string()};
    std::filesystem::path file() const { return mScratch.path() / "com.tarvell.zentaryQ300.scands.plist"; }
    void store(const std::string& entries)
    {
        test::writeFile(file(), test::xmlPlist("<dict>" + entries + "</dict>"));
    }
};

TEST_F(PreferencesTest, UnreadableValuesGiveTheDefaults)
{
    struct Case {
        const char* entries;
        std::int32_t imageType;
        std::int16_t resolution;
    } cases[] = {
        {"", 1, 300},
        {"<key>imageType</key><integer>2</integer><key>resolution</key><integer>600</integer>", 2, 600},
        {"<key>imageType</key><string>2</string><key>resolution</key><true/>", 1, 300},
        {"<key>imageType</key><integer>4294967296</integer><key>resolution</key><integer>70000</integer>", 1, 300},
        {"<key>resolution</key><integer>-32768</integer>", 1, -32768},
    };
    for (const Case& c : cases) {
        store(c.entries);
        EXPECT_EQ(DSPreferences::imageTypePreference(), c.imageType) << c.entries;
        EXPECT_EQ(DSPreferences::resolutionPreference(), c.resolution) << c.entries;
    }
    std::ofstream(file()) << "garbage, not a property list";
    EXPECT_EQ(DSPreferences::resolutionPreference(), 300);
}

}  // namespace
}  // namespace zentary
