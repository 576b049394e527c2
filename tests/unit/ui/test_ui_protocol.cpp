#include <gtest/gtest.h>

#include <string>

#include "ui/UiProtocol.h"

namespace zentary {
namespace {

TEST(UiProtocol, MessagesSurviveTheRoundTrip)
{
    const UiMessage messages[] = {
        UiMessage("hello").set("version", kUiProtocolVersion),
        UiMessage("alert")
            .set("id", std::int64_t{-9007199254740993})
            .set("message", "Quote \" backslash \\ tab \t newline \n bell \x07 caf\xc3\xa9 \xf0\x9f\x93\xa0")
            .set("buttons", std::vector<std::string>{"Apply", "Cancel", "Discard"})
            .set("systemModal", true),
        UiMessage("progress.update").set("progress", 0.5).set("whole", 2.0).set("tiny", 1e-300),
        UiMessage("dialog.show").set("imageTypes", std::vector<std::string>{}).set("imageType", ""),
        UiMessage(),
    };
    for (const UiMessage& message : messages) {
        std::string line = message.encode();
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
        std::optional<UiMessage> back = UiMessage::decode(line);
        ASSERT_TRUE(back) << line;
        EXPECT_EQ(*back, message) << line;
    }
}

TEST(UiProtocol, ReadsWhatItKeepsAndSkipsWhatItDoesNotKnow)
{
    std::optional<UiMessage> message = UiMessage::decode(
        R"( {"type":"x", "n":-12, "r":2.5e1, "b":false, "list":["a","\u00e9\ud83d\udce0"],)"
        R"( "later":{"nested":[1,{"deeper":null}]}, "mixed":[1,"a"], "nothing":null } )");
    ASSERT_TRUE(message);
    EXPECT_EQ(std::tuple(message->type(), message->integer("n"), message->number("r"), message->number("n"),
                         message->boolean("b")),
              std::tuple("x", std::optional<std::int64_t>(-12), std::optional(25.0), std::optional(-12.0),
                         std::optional(false)));
    EXPECT_EQ(message->strings("list"), (std::vector<std::string>{"a", "\xc3\xa9\xf0\x9f\x93\xa0"}));
    for (const char* skipped : {"later", "mixed", "nothing"}) EXPECT_EQ(message->get(skipped), nullptr) << skipped;
    EXPECT_EQ(message->string("n"), std::nullopt);  // wrong type reads as absent
}

TEST(UiProtocol, RefusesMalformedLines)
{
    std::string deep = R"({"a":)" + std::string(kUiMaxDepth + 1, '[') + std::string(kUiMaxDepth + 1, ']') + "}";
    std::string manyFields = "{";
    for (std::size_t i = 0; i <= kUiMaxFields; ++i) manyFields += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":1";
    manyFields += "}";
    const std::string lines[] = {
        "", "[]", "\"type\"", R"({"type":"x")", R"({"type":"x"} trailing)", R"({"type":"x",})", R"({type:"x"})",
        R"({"type":'x'})", R"({"a":1,"a":2})", R"({"a":01})", R"({"a":-})", R"({"a":1.})", R"({"a":1e})",
        R"({"a":1e999})", R"({"a":tru})", R"({"a":"\x"})", R"({"a":"\u12"})", R"({"a":"\ud800"})",
        R"({"a":"\udc00"})", R"({"a":"\u0000"})", "{\"a\":\"raw\nnewline\"}", "{\"a\":\"bad utf8 \xc3\x28\"}",
        "{\"a\":\"overlong \xc0\xaf\"}", "{\"a\":\"surrogate \xed\xa0\x80\"}", "{\"a\":\"cut \xe2\x82\"}", deep,
        manyFields, "{\"a\":\"" + std::string(kUiMaxLineLength, 'x') + "\"}",
    };
    for (const std::string& line : lines) {
        std::string error;
        EXPECT_FALSE(UiMessage::decode(line, &error)) << line.substr(0, 80);
        EXPECT_FALSE(error.empty()) << line.substr(0, 80);
    }
}

TEST(UiProtocol, LineBufferDropsOverlongLinesAndKeepsTheNext)
{
    struct Case {
        std::vector<std::string> chunks;
        std::vector<std::string> lines;
        std::size_t dropped;
        std::size_t pending;
    };
    std::string big(kUiMaxLineLength, 'x');
    const Case cases[] = {
        {{"a\nb", "c\n", "d"}, {"a", "bc"}, 0, 1},
        {{big + "\n"}, {big}, 0, 0},
        {{big, "y\nnext\n"}, {"next"}, 1, 0},
        {{big + "y", "z", "z", "\n", "ok\n"}, {"ok"}, 1, 0},
        {{"\n\n"}, {"", ""}, 0, 0},
    };
    for (const Case& c : cases) {
        UiLineBuffer buffer;
        for (const std::string& chunk : c.chunks) buffer.append(chunk);
        std::vector<std::string> lines;
        while (auto line = buffer.next()) lines.push_back(*line);
        EXPECT_EQ(lines, c.lines);
        EXPECT_EQ(buffer.takeDropped(), c.dropped);
        EXPECT_EQ(buffer.pending(), c.pending);
    }
}

}  // namespace
}  // namespace zentary
