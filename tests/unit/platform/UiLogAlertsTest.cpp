#include <set>
#include <sstream>
#include <thread>

#include "platform/Alerts.h"
#include "platform/UiLog.h"
#include "TestSupport.h"

namespace zentary {
namespace {

using test::readFile;
using test::ScopedEnv;
using test::TempDir;

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

TEST(UiLog, EscapesStrings)
{
    struct Case {
        std::string text, json;
    };
    const Case cases[] = {
        {"plain", R"("plain")"},
        {"say \"hi\"", R"("say \"hi\"")"},
        {"C:\\dir", R"("C:\\dir")"},
        {"a\nb\tc\r", R"("a\u000ab\u0009c\u000d")"},
        {std::string("\0\x1f\x7f", 3), R"("\u0000\u001f\u007f")"},
        {"\xC3\xA9\xE2\x80\xA8\xF0\x9F\x98\x80", "\"\xC3\xA9\xE2\x80\xA8\xF0\x9F\x98\x80\""},
        {"bad\xFF", R"("bad\ufffd")"},
        {"cut\xE2\x80", R"("cut\ufffd\ufffd")"},
        {"\xED\xA0\x80", R"("\ufffd\ufffd\ufffd")"},  // a surrogate is not UTF-8
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_EQ(jsonQuoted(c.text), c.json);
    }
    EXPECT_EQ(JsonObject()
                  .add("event", "dialog")
                  .add("row", 7)
                  .add("big", std::int64_t(-1) << 40)
                  .add("shown", true)
                  .add("list", std::vector<std::string>{"a\"", "b"})
                  .add("none", std::vector<std::string>{})
                  .str(),
              R"({"event":"dialog","row":7,"big":-1099511627776,"shown":true,"list":["a\"","b"],"none":[]})");
}

TEST(UiLog, OneWholeLinePerEventFromConcurrentWriters)
{
    TempDir dir;
    auto log = dir.path() / "ui.log";
    {
        ScopedEnv unset("ZENTARY_UI_LOG", std::nullopt);
        uilog::write(JsonObject().add("event", "lost"));
    }
    ScopedEnv env("ZENTARY_UI_LOG", log.string());
    constexpr int kThreads = 4, kEvents = 200;
    // Long lines, so that a writer that split a line over several writes
    // would show up as interleaving.
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            std::string filler(5000, static_cast<char>('a' + t));
            for (int i = 0; i < kEvents; ++i) uilog::write(JsonObject().add("thread", t).add("text", filler));
        });
    for (auto& thread : threads) thread.join();

    std::set<std::string> expected;
    for (int t = 0; t < kThreads; ++t)
        expected.insert(JsonObject().add("thread", t).add("text", std::string(5000, static_cast<char>('a' + t))).str());
    auto written = lines(readFile(log));
    ASSERT_EQ(written.size(), std::size_t(kThreads * kEvents));
    for (const auto& line : written) ASSERT_TRUE(expected.count(line)) << line.substr(0, 80);
}

class RecordingPresenter : public AlertPresenter {
public:
    explicit RecordingPresenter(int answer, bool throws = false) : mAnswer(answer), mThrows(throws) {}
    int present(const AlertRequest& request) override
    {
        ++calls;
        if (mThrows) throw std::runtime_error("no display");
        (void)request;
        return mAnswer;
    }
    int calls = 0;

private:
    int mAnswer;
    bool mThrows;
};

TEST(Alerts, AnswersAndLogsEveryAlert)
{
    TempDir dir;
    auto log = dir.path() / "ui.log";
    ScopedEnv env("ZENTARY_UI_LOG", log.string());
    const AlertRequest three{5, "Changes?", "", {"Apply", "Cancel", "Discard"}, false};
    const AlertRequest one{8, "Could not acquire the scanned image", "Please scan again at a lower resolution.",
                           {"Ok"}, true};
    const AlertRequest none{1, "No buttons", "", {}, false};

    struct Case {
        const char* name;
        std::shared_ptr<RecordingPresenter> presenter;  // null: the headless one
        const AlertRequest& request;
        int answer;
        int calls;
    };
    const Case cases[] = {
        {"headless", nullptr, three, 1000, 0},
        {"third button", std::make_shared<RecordingPresenter>(1002), three, 1002, 1},
        {"answer beyond the buttons", std::make_shared<RecordingPresenter>(1001), one, 0, 1},
        {"presenter throws", std::make_shared<RecordingPresenter>(1000, true), one, 0, 1},
        {"no buttons", std::make_shared<RecordingPresenter>(1000), none, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        alerts::setPresenter(c.presenter);
        EXPECT_EQ(alerts::show(c.request), c.answer);
        if (c.presenter) {
            EXPECT_EQ(c.presenter->calls, c.calls);
        }
    }
    alerts::setPresenter(nullptr);
    EXPECT_EQ(alerts::show(one), 1000);

    auto written = lines(readFile(log));
    ASSERT_EQ(written.size(), 6u);
    EXPECT_EQ(written[0],
              R"({"event":"alert","row":5,"message":"Changes?","informative":"",)"
              R"("buttons":["Apply","Cancel","Discard"],"modal":"application","answer":1000})");
    EXPECT_EQ(written[5],
              R"({"event":"alert","row":8,"message":"Could not acquire the scanned image",)"
              R"("informative":"Please scan again at a lower resolution.","buttons":["Ok"],)"
              R"("modal":"system","answer":1000})");
    EXPECT_NE(written[4].find(R"("buttons":[],)"), std::string::npos);
}

}  // namespace
}  // namespace zentary
