#include <stdexcept>

#include "platform/Alerts.h"
#include "platform/UiLog.h"
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zentary {
namespace {

using test::ScopedEnv;
using test::ScratchDir;

TEST(UiLog, EscapesStrings)
{
    const std::pair<std::string, std::string> cases[] = {
        {"say \"hi\" C:\\", R"("say \"hi\" C:\\")"},
        {"a\nb\tc\r", R"("a\u000ab\u0009c\u000d")"},
        {std::string("\0\x1f\x7f", 3), R"("\u0000\u001f\u007f")"},
        {"\xC3\xA9\xE2\x80\xA8\xF0\x9F\x98\x80", "\"\xC3\xA9\xE2\x80\xA8\xF0\x9F\x98\x80\""},
        {"bad\xFF", R"("bad\ufffd")"},
        {"cut\xE2\x80", R"("cut\ufffd\ufffd")"},
        {"\xED\xA0\x80", R"("\ufffd\ufffd\ufffd")"},  // a surrogate is not UTF-8
    };
    for (const auto& [text, json] : cases) EXPECT_EQ(jsonQuoted(text), json);
    EXPECT_EQ(JsonObject()
                  .add("event", "dialog")
                  .add("big", std::int64_t(-1) << 40)
                  .add("shown", true)
                  .add("list", std::vector<std::string>{"a\"", "b"})
                  .add("none", std::vector<std::string>{})
                  .str(),
              R"({"event":"dialog","big":-1099511627776,"shown":true,"list":["a\"","b"],"none":[]})");
}

struct FixedPresenter : AlertPresenter {
    explicit FixedPresenter(int answer) : mAnswer(answer) {}
    int present(const AlertRequest&) override
    {
        ++calls;
        if (mAnswer < 0) throw std::runtime_error("no display");
        return mAnswer;
    }
    int mAnswer, calls = 0;
};

TEST(Alerts, AnswersAndLogsEveryAlert)
{
    ScratchDir dir;
    ScopedEnv env("ZENTARY_UI_LOG", (dir.path() / "ui.log").string());
    const AlertRequest three{5, "Changes?", "", {"Apply", "Cancel", "Discard"}, false};
    const AlertRequest one{8, "Could not acquire the scanned image", "Please scan again at a lower resolution.",
                           {"Ok"}, true};
    const AlertRequest none{1, "No buttons", "", {}, false};
    struct Case {
        std::shared_ptr<FixedPresenter> presenter;  // null: the headless one
        const AlertRequest& request;
        int answer, calls;
    };
    const Case cases[] = {
        {nullptr, three, 1000, 0},
        {std::make_shared<FixedPresenter>(1002), three, 1002, 1},
        {std::make_shared<FixedPresenter>(1001), one, 0, 1},  // beyond its buttons
        {std::make_shared<FixedPresenter>(-1), one, 0, 1},    // throws
        {std::make_shared<FixedPresenter>(1000), none, 0, 0},
        {nullptr, one, 1000, 0},
    };
    for (const auto& c : cases) {
        alerts::setPresenter(c.presenter);
        EXPECT_EQ(alerts::show(c.request), c.answer) << c.request.row;
        EXPECT_EQ(c.presenter ? c.presenter->calls : 0, c.calls);
    }
    auto lines = test::readLines(dir.path() / "ui.log");
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], R"({"event":"alert","row":5,"message":"Changes?","informative":"",)"
                        R"("buttons":["Apply","Cancel","Discard"],"modal":"application","answer":1000})");
    EXPECT_EQ(lines[5], R"({"event":"alert","row":8,"message":"Could not acquire the scanned image",)"
                        R"("informative":"Please scan again at a lower resolution.","buttons":["Ok"],)"
                        R"("modal":"system","answer":1000})");
    EXPECT_NE(lines[4].find(R"("buttons":[],)"), std::string::npos);
}

}  // namespace
}  // namespace zentary
