// The data source's user interface against the real zentary-ui, drawn
// offscreen. Each window is grabbed to a PNG under test-output/ui and checked
// through the widget list the helper reports.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>
#include <fstream>

#include "ds/DSAlerts.h"
#include "ds/DSBundle.h"
#include "platform/Bundle.h"
#include "support/TestEnvironment.h"
#include "unit/ui/FakeStore.h"
#include "ui/DataSourceDialog.h"
#include "ui/HelperAlertPresenter.h"
#include "ui/ScanProgressDialog.h"

namespace zentary {
namespace {

using namespace std::chrono_literals;

// The screen the windows are centred on: a common desktop, so that scale 2
// leaves 960 x 540 to lay out in. Xvfb gets the same from its CMake entry.
std::optional<std::string> offscreenPlatform()
{
    if (std::getenv("DISPLAY")) return std::nullopt;
    std::filesystem::path config = test::buildDir() / "test-output" / "offscreen-1920x1080.json";
    std::filesystem::create_directories(config.parent_path());
    std::ofstream(config) << R"({"screens":[{"name":"desk","x":0,"y":0,"width":1920,"height":1080,"logicalDpi":96}]})";
    return "offscreen:configfile=" + config.string();
}

// One helper process with the windows of the data source's side around it.
struct HelperSession {
    RunLoop loop;
    test::ScopedEnv platform{"QT_QPA_PLATFORM", offscreenPlatform()};
    test::ScopedEnv bundleEnv{"ZENTARY_BUNDLE", test::bundlePath().string()};
    std::filesystem::path resources = test::bundlePath() / "Resources";
    UiBundle bundle{resources.string(), nullptr};
    // Offscreen and Xvfb runs may go side by side: separate folders.
    std::filesystem::path shots = test::buildDir() / "test-output" / (std::getenv("DISPLAY") ? "ui-x11" : "ui");
    std::shared_ptr<UserInterface> ui;
    std::vector<UiMessage> replies;
    std::int64_t nextId = 1;
    FakeStore fake;
    int scans = 0, closes = 0, stops = 0;

    HelperSession()
    {
        std::filesystem::create_directories(shots);
        start(UiHelper::Options::forResources(resources.string()).executable);
    }
    ~HelperSession() { alerts::setPresenter(nullptr); }
    void start(const std::string& executable)
    {
        ui = std::make_shared<UserInterface>(loop, UserInterface::Mode::Helper,
                                             UiHelper::Options{executable, {"--test"}, 2});
        ui->setActionHandler("test", [this](const UiMessage& reply) { replies.push_back(reply); });
    }
    std::unique_ptr<DataSourceDialog> dialog()
    {
        return DataSourceDialog::initWithDataSourceEngine(*ui, {[this] { ++scans; }, [this] { ++closes; }}, &bundle,
                                                          fake.store());
    }
    std::unique_ptr<ScanProgressDialog> progress()
    {
        return ScanProgressDialog::initWithDataSourceEngine(*ui, {[] { return 0.0f; }, [this] { ++stops; }}, &bundle);
    }
    // Sends a test message and waits for its answer.
    UiMessage ask(UiMessage message)
    {
        std::int64_t id = nextId++;
        ui->send(message.set("id", id));
        UiMessage answer;
        loop.runUntil(
            [&] {
                for (const UiMessage& reply : replies)
                    if (reply.integer("id") == id) return (answer = reply), true;
                return false;
            },
            RunLoop::Clock::now() + 20s);
        return answer;
    }
    void act(const std::string& type, const std::string& window, const std::string& control,
             const std::string& key = "")
    {
        ask(UiMessage(type).set("window", window).set("control", control).set("key", key));
    }
    bool waitFor(const std::function<bool()>& done) { return loop.runUntil(done, RunLoop::Clock::now() + 20s); }
    // The window's widgets by object name, after grabbing it to `file`.
    std::map<std::string, UiMessage> snapshot(const std::string& window, const std::string& file)
    {
        UiMessage answer = ask(UiMessage("test.snapshot").set("window", window).set("path", (shots / file).string()));
        EXPECT_EQ(answer.boolean("ok"), true) << file;
        EXPECT_GT(std::filesystem::exists(shots / file) ? std::filesystem::file_size(shots / file) : 0, 100u);
        std::map<std::string, UiMessage> widgets;
        for (const std::string& text : answer.strings("widgets").value_or(std::vector<std::string>()))
            if (auto widget = UiMessage::decode(text)) widgets[widget->string("name").value_or("")] = *widget;
        return widgets;
    }
    // Shows alert `row` of the data source's table as the engine does, on
    // its loop, and runs `whileShown` while it is up.
    int alert(int row, std::function<void()> whileShown = {})
    {
        int answer = -1;
        alerts::setPresenter(std::make_shared<HelperAlertPresenter>(ui, kName));
        loop.post([&] { answer = DSAlerts::displayMessage(row); });
        if (whileShown) loop.post(whileShown);
        waitFor([&] { return answer != -1; });
        return answer;
    }
    std::vector<std::string> windows()
    {
        return ask(UiMessage("test.windows")).strings("windows").value_or(std::vector<std::string>());
    }
};

struct HelperFixture : ::testing::Test, HelperSession {};

TEST_F(HelperFixture, DialogShowsTheModelAndSendsTheUsersChoices)
{
    auto shown = dialog();
    ASSERT_TRUE(shown);
    auto widgets = snapshot("dialog", "dialog.png");
    EXPECT_EQ(widgets["imageType"].strings("items"), (std::vector<std::string>{"Gray", "Color"}));
    EXPECT_EQ(widgets["imageType"].string("text"), "Color");
    EXPECT_EQ(widgets["resolution"].strings("items"), (std::vector<std::string>{"150 dpi", "300 dpi", "600 dpi"}));
    EXPECT_EQ(widgets["resolution"].string("text"), "300 dpi");

    ask(UiMessage("test.press").set("window", "dialog").set("control", "imageType").set("value", "Gray"));
    ask(UiMessage("test.press").set("window", "dialog").set("control", "resolution").set("value", "600 dpi"));
    act("test.press", "dialog", "scan");
    ASSERT_TRUE(waitFor([&] { return scans == 1; }));
    using Set = std::pair<std::uint16_t, SettingValue>;
    EXPECT_EQ(fake.sets, (std::vector<Set>{{kPixelTypeCapability, {1}}, {kXResolutionCapability, {600, 0}}}));
    EXPECT_EQ(snapshot("dialog", "dialog-gray-600.png")["imageType"].string("text"), "Gray");

    shown.reset();
    EXPECT_EQ(windows(), std::vector<std::string>{});
}

// What a keyboard user and the close box do in each window.
TEST_F(HelperFixture, KeysAndTheCloseBoxAnswerAsOnTheDesktop)
{
    struct Case {
        int row;  // 0: the settings dialog
        const char *type, *control, *key;
        int scans, closes, answer;
    };
    const Case cases[] = {
        {0, "test.key", "imageType", "Return", 1, 0, 0},  // from a closed menu
        {0, "test.key", "resolution", "Escape", 0, 1, 0},
        {0, "test.close", "", "", 0, 1, 0},
        {6, "test.key", "", "Return", 0, 0, 1000},
        {6, "test.key", "", "Escape", 0, 0, 1001},
        {6, "test.close", "", "", 0, 0, 1001},
        {5, "test.press", "button3", "", 0, 0, 1002},
        {1, "test.key", "", "Escape", 0, 0, 1000},  // a lone button is also the way out
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.row) + " " + c.type + " " + c.key);
        scans = closes = 0;
        int answer = 0;
        if (auto shown = c.row ? nullptr : dialog()) {
            act(c.type, "dialog", c.control, c.key);
            waitFor([&] { return scans + closes > 0; });
        } else {
            answer = alert(c.row, [&] { act(c.type, "alert", c.control, c.key); });
        }
        EXPECT_EQ(std::tuple(scans, closes, answer), std::tuple(c.scans, c.closes, c.answer));
    }
}

// Every window, in every language shipped, at scale 1 and 2: centred and
// whole on the screen, every text whole in its window and exactly the one of
// the tables; each kept as a picture under test-output/ui.
TEST(HelperLayout, EveryWindowInEveryLanguageAndScale)
{
    using Texts = std::map<std::string, std::string>;  // widget -> key of its text (a window's: its title)
    for (std::string scale : {"1", "2"}) {
        for (std::string locale : {"en_US", "de_DE", "fr_FR", "es_ES", "it_IT", "pt_BR", "ja_JP", "zh_CN"}) {
            std::string tag = locale + "@" + scale;
            SCOPED_TRACE(tag);
            test::ScopedEnv scaled("QT_SCALE_FACTOR", scale), lang("LANG", locale + ".UTF-8"), all("LC_ALL", {}),
                messages("LC_MESSAGES", {}), list("LANGUAGE", {});
            HelperSession f;
            std::optional<Bundle> strings = Bundle::atPath(test::bundlePath());
            ASSERT_TRUE(strings);
            auto tr = [&](const std::string& key) { return strings->localizedString(key); };
            f.bundle.localizedString = tr;
            bool english = locale == "en_US";
            EXPECT_EQ(tr("Cancel") == "Cancel", english);  // the language's own table is the one read
            auto check = [&](const std::string& window, const std::string& file, const Texts& texts) {
                auto widgets = f.snapshot(window, file + "-" + tag + ".png");
                for (const char* fact : {"hasIcon", "onScreen", "centred"})
                    EXPECT_EQ(widgets[window].boolean(fact), true) << file << " " << fact;
                for (const auto& [name, widget] : widgets)
                    EXPECT_TRUE(name == window || widget.boolean("visible") != true || widget.boolean("whole") == true)
                        << file << " " << widget.encode();
                for (const auto& [name, key] : texts)
                    EXPECT_EQ(widgets[name].string(name == window ? "title" : "text"), tr(key)) << file << " " << name;
                return widgets;
            };

            auto shownDialog = f.dialog();
            auto d = check("dialog", "dialog",
                           {{"dialog", "Tarvell Zentary Q305"}, {"imageTypeLabel", "Image type:"}, {"scan", "Scan"},
                            {"resolutionLabel", "Resolution:"}, {"imageType", "Color"}, {"cancel", "Cancel"}});
            EXPECT_EQ(d["dialog"].boolean("fixedSize"), true);
            EXPECT_EQ(d["scan"].boolean("default"), true);
            for (const char* name : {"imageType", "resolution", "scan", "cancel"}) {
                std::string spoken = d[name].string("accessibleName").value_or(":");
                EXPECT_TRUE(!spoken.empty() && spoken.back() != ':') << name;
            }
            EXPECT_EQ(d["imageType"].string("accessibleName") == "Image type", english);
            shownDialog.reset();

            // Busy until the first value, then the value; Cancel taken at once.
            auto shownProgress = f.progress();
            auto p = check("progress", "progress", {{"progress", "Tarvell Scan Progress"}, {"message", "Scanning..."}});
            EXPECT_EQ(p["bar"].integer("maximum"), 0);
            shownProgress->progress()->setProgress(0.5f);
            shownProgress->scanDidComplete();
            p = check("progress", "progress-transferring", {{"message", "Transferring image..."}});
            EXPECT_EQ(std::tuple(p["bar"].integer("value"), p["bar"].integer("maximum")), std::tuple(500, 1000));
            f.act("test.press", "progress", "cancel");
            p = check("progress", "progress-cancelled", {{"message", "Cancelling..."}});
            EXPECT_EQ(p["cancel"].boolean("enabled"), false);
            EXPECT_TRUE(f.waitFor([&] { return f.stops == 1; }));
            shownProgress.reset();

            // Every row in English; elsewhere the longest translated text and a row with Cancel.
            for (int row : english ? std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12} : std::vector<int>{7, 6}) {
                const DSAlerts::Message* texts = DSAlerts::message(row);
                f.alert(row, [&] {
                    auto a = check("alert", "alert-" + std::to_string(row),
                                   {{"alert", kName}, {"qt_msgbox_label", texts->message},
                                    {"button1", texts->buttons[0]}});
                    EXPECT_NE(a["alert"].string("icon").value_or("none"), "information");  // no row is mere news
                    EXPECT_EQ(a["button1"].boolean("default"), true);
                    f.act("test.press", "alert", "button1");
                });
            }
        }
    }
}

TEST_F(HelperFixture, MissingOrDyingHelperFailsWithoutHanging)
{
    start("/nonexistent/zentary-ui");
    EXPECT_FALSE(dialog());
    EXPECT_EQ(alert(1), 0);

    // One that starts but dies at once: restarted twice, then given up, and
    // the dialog nobody can answer counts as Cancel.
    start("/bin/true");
    auto shown = dialog();
    ASSERT_TRUE(shown);
    ASSERT_TRUE(waitFor([&] { return closes == 1; }));
    EXPECT_TRUE(ui->helper()->failed());
    EXPECT_EQ(ui->helper()->starts(), 3);
    EXPECT_EQ(alert(1), 0);
}

TEST_F(HelperFixture, HelperThatStopsReadingIsKilledNotWaitedFor)
{
    // A "helper" that never reads: sends pile up in our queue, never in a
    // blocked write, and past the limit the process is killed and replaced.
    UiHelper helper(loop, {"/bin/sleep", {"30"}, 2, 64 * 1024});
    ASSERT_TRUE(helper.send(UiMessage("dialog.show")));
    pid_t first = helper.pid();
    std::string filler(8 * 1024, 'x');
    for (int i = 0; i < 200 && helper.pid() == first; ++i) {
        helper.send(UiMessage("dialog.update").set("filler", filler));
        loop.runFor(1ms);
    }
    ASSERT_TRUE(waitFor([&] { return helper.pid() != first && helper.pid() > 0; }));
    EXPECT_EQ(::kill(first, 0), -1);
    EXPECT_EQ(helper.starts(), 2);
}

}  // namespace
}  // namespace zentary
