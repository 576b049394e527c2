#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include "platform/StringsTable.h"
#include "support/TestEnvironment.h"
#include "unit/ui/FakeStore.h"
#include "ui/DataSourceDialog.h"
#include "ui/ScanProgressDialog.h"

namespace zentary {
namespace {

using test::ScratchDir;

// A bundle in a scratch directory with the settings files the test writes.
struct TestBundle {
    ScratchDir dir;
    UiBundle bundle;
    std::map<std::string, std::string> translations;

    TestBundle()
    {
        std::filesystem::create_directories(dir.path() / kSettingsDirectory);
        bundle.resourcePath = dir.path().string();
        bundle.localizedString = [this](const std::string& key) {
            auto it = translations.find(key);
            return it == translations.end() ? key : it->second;
        };
    }
    void write(const std::string& file, const std::string& body)
    {
        std::ofstream(dir.path() / kSettingsDirectory / file)
            << "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>" << body << "</dict></plist>";
    }
};

// Every shipped language has exactly the English keys, each with a text: a
// missing key shows English, an extra one translates nothing.
TEST(StringsTables, EveryLanguageHasExactlyTheEnglishKeys)
{
    auto keysOf = [](const std::string& language) {
        std::ifstream in(test::bundlePath() / "Resources" / (language + ".lproj") / "Localizable.strings");
        auto table = parseStringsTable(std::string(std::istreambuf_iterator<char>(in), {}));
        std::vector<std::string> keys;
        for (const auto& [key, text] : table.value_or(std::map<std::string, std::string>()))
            if (!text.empty()) keys.push_back(key);
        return keys;
    };
    std::vector<std::string> english = keysOf("en");
    EXPECT_EQ(std::count(english.begin(), english.end(), kCancelling), 1);
    for (const char* language : {"de", "fr", "es", "it", "pt_BR", "ja", "zh_Hans"})
        EXPECT_EQ(keysOf(language), english) << language;
}

std::string imageType(const char* key, const char* name, int value)
{
    return std::string("<key>") + key + "</key><dict><key>displayName</key><string>" + name +
           "</string><key>value</key><integer>" + std::to_string(value) + "</integer></dict>";
}

std::string resolution(int dpi)
{
    return "<dict><key>displayName</key><string>" + std::to_string(dpi) +
           " dpi</string><key>value</key><array><integer>" + std::to_string(dpi) +
           "</integer><integer>0</integer></array></dict>";
}

struct SettingsFixture : ::testing::Test {
    TestBundle files;
    FakeStore store;
    void SetUp() override
    {
        files.write(kScanSettingsFileName,
                    "<key>imageTypes</key><dict>" + imageType("bw", "Black", 0) + imageType("gray", "Gray", 1) +
                        imageType("color", "Color", 2) + "</dict><key>resolutions</key><array>" + resolution(75) +
                        resolution(150) + resolution(300) + resolution(600) + resolution(1200) + "</array>");
    }
};

// The lists and selections as the dialog shows them are checked through the
// helper; here, what it cannot see: the store's say and what goes back.
TEST_F(SettingsFixture, FollowsTheStoreAndSendsEachChoiceOnce)
{
    files.translations["Gray"] = "Grau";
    auto settings = ScanSettings::initWithCapabilities(&files.bundle, store.store());
    ASSERT_TRUE(settings);
    std::map<std::string, bool> enabled;
    for (const auto& type : settings->imageTypes()) enabled[type.displayName] = type.enabled;
    EXPECT_EQ(enabled, (std::map<std::string, bool>{{"Black", false}, {"Grau", true}, {"Color", true}}));
    EXPECT_TRUE(settings->capabilitiesChanged());
    std::vector<std::string> told;
    settings->addObserver([&](std::string_view key) { told.emplace_back(key); });

    settings->setImageTypeSelectionValue("Color");  // already selected: nothing
    settings->setImageTypeSelectionValue("Grau");
    settings->setImageTypeSelectionValue("Color");
    settings->setResolutionSelectionValue("600 dpi");
    settings->setResolutionSelectionValue("42 dpi");  // no such entry: text only

    using Set = std::pair<std::uint16_t, SettingValue>;
    EXPECT_EQ(store.sets, (std::vector<Set>{{kPixelTypeCapability, {1}},
                                            {kPixelTypeCapability, {2}},
                                            {kXResolutionCapability, {600, 0}}}));
    EXPECT_EQ(store.typePrefs, (std::vector<std::int32_t>{2, 1}));
    EXPECT_EQ(store.resolutionPrefs, (std::vector<std::int16_t>{600}));
    EXPECT_EQ(settings->resolutionSelectionValue(), "42 dpi");
    EXPECT_EQ(told.size(), 4u);

    store.currentResolution = {1200, 0};  // valid nowhere: no selection
    EXPECT_FALSE(settings->capabilitiesChanged());
}

TEST_F(SettingsFixture, MissingFilesAndListsGiveNoModel)
{
    EXPECT_FALSE(ScanSettings::initWithCapabilities(nullptr, store.store()));
    UiBundle elsewhere{"/nonexistent", nullptr};
    EXPECT_FALSE(ScanSettings::initWithCapabilities(&elsewhere, store.store()));
    EXPECT_FALSE(DialogStrings::init(&files.bundle));  // not written

    files.write(kScanSettingsFileName, "<key>imageTypes</key><dict>" + imageType("gray", "Gray", 1) + "</dict>");
    EXPECT_FALSE(ScanSettings::initWithCapabilities(&files.bundle, store.store()));

    files.write(kScanSettingsFileName, "<key>resolutions</key><array>" + resolution(300) + "</array>");
    auto noTypes = ScanSettings::initWithCapabilities(&files.bundle, store.store());
    ASSERT_TRUE(noTypes);  // still a model, without selections
    EXPECT_EQ(noTypes->imageTypeSelectionValue(), "");
    EXPECT_TRUE(noTypes->resolutionValues().empty());
}

// Headless runs: the controllers against the same interface the helper uses.
struct HeadlessFixture : ::testing::Test {
    RunLoop loop;
    ScratchDir logDir;
    test::ScopedEnv logEnv{"ZENTARY_UI_LOG", (logDir.path() / "ui.log").string()};
    UiBundle bundle{(test::bundlePath() / "Resources").string(), nullptr};
    FakeStore store;

    std::vector<std::string> events()
    {
        std::vector<std::string> names;
        for (const std::string& line : test::readLines(logDir.path() / "ui.log"))
            if (auto message = UiMessage::decode(line)) names.push_back(message->string("event").value_or(""));
        return names;
    }
};

TEST_F(HeadlessFixture, TheDialogPressesItsButtonOnceItIsUp)
{
    for (auto mode : {UserInterface::Mode::Headless, UserInterface::Mode::HeadlessCancel}) {
        UserInterface ui(loop, mode, {});
        int scans = 0, closes = 0;
        auto dialog = DataSourceDialog::initWithDataSourceEngine(ui, {[&] { ++scans; }, [&] { ++closes; }}, &bundle,
                                                                 store.store());
        ASSERT_TRUE(dialog);
        EXPECT_EQ(DataSourceDialog::current(), dialog.get());
        EXPECT_FALSE(DataSourceDialog::initWithDataSourceEngine(ui, {}, &bundle, store.store()));
        EXPECT_EQ(scans + closes, 0);  // not from inside the creation
        loop.runFor(std::chrono::milliseconds(20));
        EXPECT_EQ(scans, mode == UserInterface::Mode::Headless ? 1 : 0);
        EXPECT_EQ(closes, mode == UserInterface::Mode::Headless ? 0 : 1);
        EXPECT_EQ(ui.presentAlert({1, "m", "", {"Ok", "Cancel"}, false, "", "", -1}), 1000);
        dialog.reset();
        EXPECT_EQ(DataSourceDialog::current(), nullptr);
    }
    EXPECT_EQ(events(), (std::vector<std::string>{"dialog.shown", "dialog.scan", "dialog.closed", "dialog.shown",
                                                  "dialog.cancel", "dialog.closed"}));
}

TEST_F(HeadlessFixture, ProgressPollsEveryTwoSecondsUntilTheScanCompletes)
{
    UserInterface ui(loop, UserInterface::Mode::Headless, {});
    float scanned = 0.25f;
    int stops = 0;
    auto dialog = ScanProgressDialog::initWithDataSourceEngine(ui, {[&] { return scanned; }, [&] { ++stops; }}, &bundle);
    ASSERT_TRUE(dialog);
    EXPECT_EQ(dialog->progress()->progress(), 0.0f);
    loop.runFor(ScanProgressDialog::kProgressInterval + std::chrono::milliseconds(200));
    EXPECT_EQ(dialog->progress()->progress(), 0.25f);

    dialog->handleCancel();
    dialog->scanDidComplete();  // after Cancel: nothing left to stop
    EXPECT_FALSE(dialog->isPolling());
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(dialog->progress()->progressMessage(), "Transferring image...");
    dialog.reset();
    EXPECT_EQ(events(), (std::vector<std::string>{"progress.shown", "progress", "progress.cancel", "progress.closed"}));

    // Released while polling: the timer must not reach the dead dialog.
    auto early = ScanProgressDialog::initWithDataSourceEngine(ui, {[&] { return scanned; }, {}}, &bundle);
    early.reset();
    loop.runFor(ScanProgressDialog::kProgressInterval + std::chrono::milliseconds(200));
}

}  // namespace
}  // namespace zentary
