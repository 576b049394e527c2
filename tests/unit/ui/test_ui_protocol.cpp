#include <gtest/gtest.h>

#include <string>

#include "ui/UiProtocol.h"

namespace zentary {
namespace {

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
