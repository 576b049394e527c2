#include <algorithm>

#include "platform/Bundle.h"
#include "platform/StringsTable.h"
#include <gtest/gtest.h>

#include "support/TestEnvironment.h"

namespace zentary {
namespace {

using test::ScopedEnv;
using test::ScratchDir;
using test::writeFile;
using Table = std::map<std::string, std::string>;

const std::string kIdentifier = "com.tarvell.zentaryQ305.scands";

std::string infoPlist(const std::string& identifier)
{
    return test::xmlPlist("<dict><key>CFBundleIdentifier</key><string>" + identifier +
                          "</string><key>CFBundleVersion</key><string>45</string>"
                          "<key>Number</key><integer>3</integer></dict>");
}

TEST(StringsTable, Parses)
{
    const std::pair<std::string, std::optional<Table>> cases[] = {
        {"", Table{}},
        {"/* c */ \"a\" = \"b\"; // line\n\"c\"=\"d\";", Table{{"a", "b"}, {"c", "d"}}},
        {R"("k" = "q\"b\\s\nt\tx\'";)", Table{{"k", "q\"b\\s\nt\tx'"}}},
        {R"("e" = "\U00e9\UD83D\UDE00";)", Table{{"e", "\xC3\xA9\xF0\x9F\x98\x80"}}},
        {"\"Ok\"; key_1 = value.2;", Table{{"Ok", "Ok"}, {"key_1", "value.2"}}},
        {"\"a\"=\"1\";\"a\"=\"2\";", Table{{"a", "2"}}},
        {"\xEF\xBB\xBF\"a\"=\"b\";", Table{{"a", "b"}}},
        {std::string("\xFF\xFE\"\0a\0\"\0=\0\"\0\xE9\0\"\0;\0", 18), Table{{"a", "\xC3\xA9"}}},
        {std::string("\xFE\xFF\0\"\0a\0\"\0=\0\"\xD8\x3D\xDE\x00\0\"\0;", 20), Table{{"a", "\xF0\x9F\x98\x80"}}},
        {"\"a\" = \"b\"", std::nullopt},
        {"\"a\" = \"b;", std::nullopt},
        {"\"a\" = \"b\"; /* x", std::nullopt},
        {R"("a" = "\UD83D";)", std::nullopt},
        {R"("a" = "\U12";)", std::nullopt},
        {R"("a" = "\U0000";)", std::nullopt},
        {"\"a\" = \"\xC0\xAF\";", std::nullopt},
        {std::string("\xFF\xFE\"\0a", 5), std::nullopt},
        {std::string(kMaxStringsTableSize + 1, ' '), std::nullopt},
    };
    for (const auto& [bytes, expected] : cases) {
        SCOPED_TRACE(bytes.substr(0, 40));
        EXPECT_EQ(parseStringsTable(bytes), expected);
    }
}

TEST(Bundle, LocalizedStringFollowsLanguageThenEnglishThenKey)
{
    ScratchDir dir;
    writeFile(dir.path() / "Info.plist", infoPlist(kIdentifier));
    writeFile(dir.path() / "Resources/en.lproj/Localizable.strings", "\"Ok\" = \"OK\"; \"Only\" = \"english\";");
    writeFile(dir.path() / "Resources/de.lproj/Localizable.strings", "\"Ok\" = \"Gut\";");
    writeFile(dir.path() / "Resources/fr.lproj/Localizable.strings", "\"Ok\" = \"Bien\"");  // malformed
    writeFile(dir.path() / "Resources/de.lproj/Other.strings", "\"Ok\" = \"Anders\";");
    auto bundle = Bundle::atPath(dir.path());
    ASSERT_TRUE(bundle);

    struct Case {
        std::optional<std::string> lcAll, lcMessages, lang;
        std::string key, table, expected;
    };
    const std::nullopt_t none = std::nullopt;
    const Case cases[] = {
        {none, none, "de_DE.UTF-8", "Ok", "Localizable", "Gut"},
        {none, none, "de_DE.UTF-8", "Only", "Localizable", "english"},
        {none, none, "de_DE.UTF-8", "Nowhere", "Localizable", "Nowhere"},
        {none, none, "de", "Ok", "Other", "Anders"},
        {none, none, "it_IT", "Ok", "Localizable", "OK"},
        {none, none, "fr_FR", "Ok", "Localizable", "OK"},
        {none, none, "C", "Ok", "Localizable", "OK"},
        {"de_AT", none, "fr_FR", "Ok", "Localizable", "Gut"},
        {"", "de_CH.UTF-8", "fr_FR", "Ok", "Localizable", "Gut"},
        {none, none, "../de", "Ok", "Localizable", "OK"},
        {none, none, "de", "Ok", "../de.lproj/Other", "Ok"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lang.value_or("-") + " " + c.key + " " + c.table);
        ScopedEnv all("LC_ALL", c.lcAll), messages("LC_MESSAGES", c.lcMessages), lang("LANG", c.lang);
        EXPECT_EQ(bundle->localizedString(c.key, c.table), c.expected);
    }
}

TEST(Bundle, PreferredLanguagesAsGettextReadsThem)
{
    struct Case {
        std::optional<std::string> language, lcAll, lang;
        std::vector<std::string> expected;
    };
    const auto none = std::nullopt;
    const Case cases[] = {
        {"fr:pt_BR", none, "de_DE.UTF-8", {"fr", "pt_BR", "pt", "de_DE", "de", "en"}},
        {"fr", "it_IT@euro", "de_DE", {"fr", "it_IT", "it", "en"}},
        {"de", none, "C.UTF-8", {"en"}},  // LANGUAGE means nothing under the C locale
        {"de", none, none, {"en"}},
        {"zh", none, "zh_TW.Big5", {"zh_Hans", "zh_Hant", "en"}},
        {"../x::ja_JP", none, "pt_br", {"ja_JP", "ja", "pt_BR", "pt", "en"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.language.value_or("-") + " " + c.lang.value_or("-"));
        ScopedEnv language("LANGUAGE", c.language), all("LC_ALL", c.lcAll), messages("LC_MESSAGES", none),
            lang("LANG", c.lang);
        EXPECT_EQ(Bundle::preferredLanguages(), c.expected);
    }
}

// Every shipped language has exactly the English keys, each with a text: a
// missing key shows English, an extra one translates nothing.
TEST(Bundle, EveryShippedLanguageHasExactlyTheEnglishKeys)
{
    auto keysOf = [](const std::string& language) {
        auto table = parseStringsTable(test::readFile(test::bundlePath() / "Resources" / (language + ".lproj") /
                                                      "Localizable.strings"));
        std::vector<std::string> keys;
        for (const auto& [key, text] : table.value_or(Table()))
            if (!text.empty()) keys.push_back(key);
        return keys;
    };
    std::vector<std::string> english = keysOf("en");
    EXPECT_EQ(std::count(english.begin(), english.end(), "Cancelling..."), 1);
    for (const char* language : {"de", "fr", "es", "it", "pt_BR", "ja", "zh_Hans"})
        EXPECT_EQ(keysOf(language), english) << language;
}

}  // namespace
}  // namespace zentary
