// The data source's user interface against the real zentary-ui, drawn
// offscreen. Each window is grabbed to a PNG under test-output/ui and checked
// through the widget list the helper reports.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>

#include "support/TestEnvironment.h"
#include "unit/ui/FakeStore.h"
#include "ui/DataSourceDialog.h"
#include "ui/ScanProgressDialog.h"

namespace zentary {
namespace {

using namespace std::chrono_literals;

struct HelperFixture : ::testing::Test {
    RunLoop loop;
    test::ScopedEnv platform{"QT_QPA_PLATFORM", std::string("offscreen")};
    std::filesystem::path resources = test::bundlePath() / "Resources";
    UiBundle bundle{resources.string(), nullptr};
    std::filesystem::path shots = test::buildDir() / "test-output" / "ui";
    std::unique_ptr<UserInterface> ui;
    std::vector<UiMessage> replies;
    std::int64_t nextId = 1;
    FakeStore fake;
    int scans = 0, closes = 0, stops = 0;

    void SetUp() override
    {
        std::filesystem::create_directories(shots);
        start(UiHelper::Options::forResources(resources.string()).executable);
    }
    void start(const std::string& executable)
    {
        ui = std::make_unique<UserInterface>(loop, UserInterface::Mode::Helper,
                                             UiHelper::Options{executable, {"--test"}, 2});
        ui->setActionHandler("test", [this](const UiMessage& reply) { replies.push_back(reply); });
    }
    std::unique_ptr<DataSourceDialog> dialog()
    {
        return DataSourceDialog::initWithDataSourceEngine(*ui, {[this] { ++scans; }, [this] { ++closes; }}, &bundle,
                                                          fake.store());
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
    // Alerts are raised by code running on the engine's loop; so here.
    int alert(const UiAlert& request, std::function<void()> whileShown = {})
    {
        int answer = -1;
        loop.post([&] { answer = ui->presentAlert(request); });
        if (whileShown) loop.post(whileShown);
        waitFor([&] { return answer != -1; });
        return answer;
    }
    std::vector<std::string> windows()
    {
        return ask(UiMessage("test.windows")).strings("windows").value_or(std::vector<std::string>());
    }
};

TEST_F(HelperFixture, DialogShowsTheModelAndSendsTheUsersChoices)
{
    auto shown = dialog();
    ASSERT_TRUE(shown);
    auto widgets = snapshot("dialog", "dialog.png");
    EXPECT_EQ(widgets["dialog"].string("title"), "Tarvell Zentary Q305");
    EXPECT_EQ(widgets["imageTypeLabel"].string("text"), "Image type:");
    EXPECT_EQ(widgets["resolutionLabel"].string("text"), "Resolution:");
    EXPECT_EQ(widgets["imageType"].strings("items"), (std::vector<std::string>{"Gray", "Color"}));
    EXPECT_EQ(widgets["imageType"].string("text"), "Color");
    EXPECT_EQ(widgets["resolution"].strings("items"), (std::vector<std::string>{"150 dpi", "300 dpi", "600 dpi"}));
    EXPECT_EQ(widgets["resolution"].string("text"), "300 dpi");
    for (const char* button : {"scan", "cancel"}) {
        EXPECT_EQ(widgets[button].boolean("enabled"), true) << button;
        EXPECT_EQ(widgets[button].boolean("visible"), true) << button;
    }
    EXPECT_EQ(widgets["scan"].string("text"), "Scan");

    ask(UiMessage("test.press").set("window", "dialog").set("control", "imageType").set("value", "Gray"));
    ask(UiMessage("test.press").set("window", "dialog").set("control", "resolution").set("value", "600 dpi"));
    ask(UiMessage("test.press").set("window", "dialog").set("control", "scan"));
    ASSERT_TRUE(waitFor([&] { return scans == 1; }));
    using Set = std::pair<std::uint16_t, SettingValue>;
    EXPECT_EQ(fake.sets, (std::vector<Set>{{kPixelTypeCapability, {1}}, {kXResolutionCapability, {600, 0}}}));
    EXPECT_EQ(snapshot("dialog", "dialog-gray-600.png")["imageType"].string("text"), "Gray");

    shown.reset();
    EXPECT_EQ(windows(), std::vector<std::string>{});
}

TEST_F(HelperFixture, ProgressWindowFollowsTheScan)
{
    auto progress = ScanProgressDialog::initWithDataSourceEngine(*ui, {[] { return 0.0f; }, [this] { ++stops; }}, &bundle);
    ASSERT_TRUE(progress);
    struct Step {
        const char* file;
        std::function<void()> act;
        int bar;
        const char* message;
    };
    const Step steps[] = {
        {"progress-0.png", [] {}, 0, "Scanning..."},
        {"progress-50.png", [&] { progress->progress()->setProgress(0.5f); }, 500, "Scanning..."},
        {"progress-done.png", [&] { progress->scanDidComplete(); }, 500, "Transferring image..."},
    };
    for (const Step& step : steps) {
        step.act();
        auto widgets = snapshot("progress", step.file);
        EXPECT_EQ(widgets["progress"].string("title"), "Tarvell Scan Progress") << step.file;
        EXPECT_EQ(widgets["bar"].integer("value"), step.bar) << step.file;
        EXPECT_EQ(widgets["bar"].integer("maximum"), 1000) << step.file;
        EXPECT_EQ(widgets["message"].string("text"), step.message) << step.file;
        EXPECT_EQ(widgets["cancel"].string("text"), "Cancel") << step.file;
    }
    ask(UiMessage("test.press").set("window", "progress").set("control", "cancel"));
    EXPECT_TRUE(waitFor([&] { return stops == 1; }));
}

TEST_F(HelperFixture, AlertsAnswerWithTheButtonPressed)
{
    struct Case {
        const char* file;
        UiAlert alert;
        const char* press;
        int answer;
    };
    const Case cases[] = {
        {"alert-8.png", {8, "Could not acquire the scanned image", "Please scan again at a lower resolution.", {"OK"}, false},
         "button1", 1000},
        {"alert-5.png",
         {5, "The current image has unapplied changes, what would you like to do?", "", {"Apply", "Cancel", "Discard"}, false},
         "button3", 1002},
        {"alert-12-system.png", {12, "The configuration is not supported.", "Use TWAIN software.", {"OK"}, true},
         "button1", 1000},
    };
    for (const Case& c : cases) {
        std::map<std::string, UiMessage> widgets;
        EXPECT_EQ(alert(c.alert,
                        [&] {
                            widgets = snapshot("alert", c.file);
                            ask(UiMessage("test.press").set("window", "alert").set("control", c.press));
                        }),
                  c.answer)
            << c.file;
        EXPECT_EQ(widgets["qt_msgbox_label"].string("text"), c.alert.message) << c.file;
        if (!c.alert.informative.empty()) {
            EXPECT_EQ(widgets["qt_msgbox_informativelabel"].string("text"), c.alert.informative) << c.file;
        }
        for (std::size_t i = 0; i < 3; ++i) {
            std::string name = "button" + std::to_string(i + 1);
            EXPECT_EQ(widgets.count(name), i < c.alert.buttons.size() ? 1u : 0u) << c.file << name;
            if (i < c.alert.buttons.size()) {
                EXPECT_EQ(widgets[name].string("text"), c.alert.buttons[i]);
            }
        }
        EXPECT_EQ(widgets.count(c.alert.systemModal ? "systemAlert" : "alert"), 1u) << c.file;
    }
}

TEST_F(HelperFixture, KilledHelperComesBackWithItsWindowsAndIsReaped)
{
    auto shown = dialog();
    ASSERT_TRUE(shown);
    ASSERT_EQ(windows(), std::vector<std::string>{"dialog"});
    pid_t first = ui->helper()->pid();
    ASSERT_GT(first, 0);
    ::kill(first, SIGKILL);
    ASSERT_TRUE(waitFor([&] { return ui->helper()->pid() > 0 && ui->helper()->pid() != first; }));
    EXPECT_EQ(windows(), std::vector<std::string>{"dialog"});
    EXPECT_EQ(::kill(first, 0), -1);  // reaped, not a zombie
    EXPECT_EQ(ui->helper()->starts(), 2);

    pid_t second = ui->helper()->pid();
    shown.reset();
    ui.reset();  // the socket closes, the helper leaves and is reaped
    EXPECT_EQ(::kill(second, 0), -1);
    EXPECT_EQ(scans + closes, 0);
}

TEST_F(HelperFixture, MissingOrDyingHelperFailsWithoutHanging)
{
    start("/nonexistent/zentary-ui");
    EXPECT_FALSE(dialog());
    EXPECT_EQ(alert({1, "m", "", {"OK"}, false}), 0);

    // One that starts but dies at once: restarted twice, then given up, and
    // the dialog nobody can answer counts as Cancel.
    start("/bin/true");
    auto shown = dialog();
    ASSERT_TRUE(shown);
    ASSERT_TRUE(waitFor([&] { return closes == 1; }));
    EXPECT_TRUE(ui->helper()->failed());
    EXPECT_EQ(ui->helper()->starts(), 3);
    EXPECT_EQ(alert({1, "m", "", {"OK"}, false}), 0);
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

TEST(UiMode, ChosenFromTheEnvironment)
{
    using Mode = UserInterface::Mode;
    struct Case {
        std::optional<std::string> ui, display, wayland;
        Mode mode;
    };
    const Case cases[] = {
        {std::nullopt, std::nullopt, std::nullopt, Mode::Headless},
        {std::nullopt, ":0", std::nullopt, Mode::Helper},
        {std::nullopt, std::nullopt, "wayland-0", Mode::Helper},
        {std::nullopt, "", std::nullopt, Mode::Headless},
        {"headless", ":0", std::nullopt, Mode::Headless},
        {"headless-cancel", ":0", std::nullopt, Mode::HeadlessCancel},
        {"helper", std::nullopt, std::nullopt, Mode::Helper},
        {"bogus", ":0", std::nullopt, Mode::Helper},
    };
    for (const Case& c : cases) {
        test::ScopedEnv ui("ZENTARY_UI", c.ui), display("DISPLAY", c.display), wayland("WAYLAND_DISPLAY", c.wayland);
        EXPECT_EQ(UserInterface::modeFromEnvironment(), c.mode) << c.ui.value_or("-") << c.display.value_or("-");
    }
}

}  // namespace
}  // namespace zentary
