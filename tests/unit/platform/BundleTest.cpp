#include <climits>
#include <unistd.h>

#include <plist/plist.h>

#include "platform/Bundle.h"
#include "platform/StringsTable.h"
#include "TestSupport.h"

namespace zentary {
namespace {

using test::ScopedEnv;
using test::TempDir;
using test::writeFile;
using test::xmlPlist;
using Table = std::map<std::string, std::string>;

const std::string kIdentifier = "com.tarvell.zentaryQ305.scands";

std::string infoPlist(const std::string& identifier)
{
    return xmlPlist("<dict><key>CFBundleIdentifier</key><string>" + identifier +
                    "</string><key>CFBundleVersion</key><string>45</string>"
                    "<key>Number</key><integer>3</integer></dict>");
}

std::string binaryInfoPlist(const std::string& identifier)
{
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(identifier.c_str()));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    std::string out(bytes, length);
    plist_to_bin_free(bytes);
    plist_free(dict);
    return out;
}

TEST(Bundle, FoundThroughEnvironmentOnlyWithItsIdentifier)
{
    struct Case {
        const char* name;
        std::optional<std::string> info;  // Info.plist contents, nothing for no file
        std::string asked;
        bool found;
    };
    const Case cases[] = {
        {"xml", infoPlist(kIdentifier), kIdentifier, true},
        {"binary", binaryInfoPlist(kIdentifier), kIdentifier, true},
        {"wrong identifier", infoPlist("com.example.other"), kIdentifier, false},
        {"identifier prefix", infoPlist(kIdentifier + ".extra"), kIdentifier, false},
        {"no Info.plist", std::nullopt, kIdentifier, false},
        {"not a dictionary", xmlPlist("<array><string>x</string></array>"), kIdentifier, false},
        {"garbage", "<?xml version=\"1.0\"?><plist><dict><key>", kIdentifier, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        if (c.info) writeFile(dir.path() / "Info.plist", *c.info);
        ScopedEnv env("ZENTARY_BUNDLE", dir.path().string());
        auto bundle = Bundle::withIdentifier(c.asked);
        ASSERT_EQ(bundle.has_value(), c.found);
        if (!bundle) continue;
        EXPECT_EQ(bundle->path(), dir.path());
        EXPECT_EQ(bundle->resourcePath("Settings/ScanSettings.plist"),
                  dir.path() / "Resources" / "Settings" / "ScanSettings.plist");
    }
}

TEST(Bundle, InfoStringsAreStringValuesOnly)
{
    TempDir dir;
    writeFile(dir.path() / "Info.plist", infoPlist(kIdentifier));
    auto bundle = Bundle::atPath(dir.path());
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->infoString("CFBundleVersion"), "45");
    EXPECT_EQ(bundle->infoString("Number"), std::nullopt);
    EXPECT_EQ(bundle->infoString("Missing"), std::nullopt);
}

// Without ZENTARY_BUNDLE the bundle is "<object>.bundle" beside the object
// that holds the code; in this test that object is the test executable.
TEST(Bundle, FoundBesideTheObjectThatHoldsTheCode)
{
    char exe[PATH_MAX] = {};
    ssize_t length = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    ASSERT_GT(length, 0);
    std::filesystem::path self(std::string(exe, static_cast<std::size_t>(length)));
    auto dir = self.parent_path() / (self.stem().string() + ".bundle");
    writeFile(dir / "Info.plist", infoPlist(kIdentifier));
    ScopedEnv env("ZENTARY_BUNDLE", std::nullopt);
    auto bundle = Bundle::withIdentifier(kIdentifier);
    std::filesystem::remove_all(dir);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->path(), dir);
}

TEST(StringsTable, Parses)
{
    struct Case {
        const char* name;
        std::string bytes;
        std::optional<Table> expected;
    };
    const std::string big(kMaxStringsTableSize + 1, ' ');
    const Case cases[] = {
        {"empty", "", Table{}},
        {"pairs and comments", "/* c */ \"a\" = \"b\"; // line\n\"c\"=\"d\";", Table{{"a", "b"}, {"c", "d"}}},
        {"escapes", R"("k" = "q\"b\\s\nt\tx\'";)", Table{{"k", "q\"b\\s\nt\tx'"}}},
        {"unicode escapes", R"("e" = "\U00e9\UD83D\UDE00";)", Table{{"e", "\xC3\xA9\xF0\x9F\x98\x80"}}},
        {"raw UTF-8 and newline", "\"\xC3\xA9\" = \"a\nb\";", Table{{"\xC3\xA9", "a\nb"}}},
        {"key only", "\"Ok\";", Table{{"Ok", "Ok"}}},
        {"bare words", "key_1 = value.2;", Table{{"key_1", "value.2"}}},
        {"duplicate: last wins", "\"a\"=\"1\";\"a\"=\"2\";", Table{{"a", "2"}}},
        {"UTF-8 BOM", "\xEF\xBB\xBF\"a\"=\"b\";", Table{{"a", "b"}}},
        {"UTF-16LE", std::string("\xFF\xFE\"\0a\0\"\0=\0\"\0\xE9\0\"\0;\0", 18), Table{{"a", "\xC3\xA9"}}},
        {"UTF-16BE pair", std::string("\xFE\xFF\0\"\0a\0\"\0=\0\"\xD8\x3D\xDE\x00\0\"\0;", 20),
         Table{{"a", "\xF0\x9F\x98\x80"}}},
        {"missing semicolon", "\"a\" = \"b\"", std::nullopt},
        {"unterminated string", "\"a\" = \"b;", std::nullopt},
        {"unterminated comment", "\"a\" = \"b\"; /* x", std::nullopt},
        {"missing value", "\"a\" = ;", std::nullopt},
        {"lone surrogate escape", R"("a" = "\UD83D";)", std::nullopt},
        {"short unicode escape", R"("a" = "\U12";)", std::nullopt},
        {"NUL escape", R"("a" = "\U0000";)", std::nullopt},
        {"invalid UTF-8", "\"a\" = \"\xC0\xAF\";", std::nullopt},
        {"odd UTF-16", std::string("\xFF\xFE\"\0a", 5), std::nullopt},
        {"UTF-16 lone low surrogate", std::string("\xFF\xFE\x00\xDC", 4), std::nullopt},
        {"too big", big, std::nullopt},
        {"plist dictionary", "{ \"a\" = \"b\"; }", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(parseStringsTable(c.bytes), c.expected);
    }
}

TEST(Bundle, LocalizedStringFollowsLanguageThenEnglishThenKey)
{
    TempDir dir;
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
    const Case cases[] = {
        {std::nullopt, std::nullopt, "de_DE.UTF-8", "Ok", "Localizable", "Gut"},
        {std::nullopt, std::nullopt, "de_DE.UTF-8", "Only", "Localizable", "english"},
        {std::nullopt, std::nullopt, "de_DE.UTF-8", "Nowhere", "Localizable", "Nowhere"},
        {std::nullopt, std::nullopt, "de", "Ok", "Other", "Anders"},
        {std::nullopt, std::nullopt, "it_IT", "Ok", "Localizable", "OK"},
        {std::nullopt, std::nullopt, "fr_FR", "Ok", "Localizable", "OK"},
        {std::nullopt, std::nullopt, "C", "Ok", "Localizable", "OK"},
        {std::nullopt, std::nullopt, std::nullopt, "Ok", "Localizable", "OK"},
        {"de_AT", std::nullopt, "fr_FR", "Ok", "Localizable", "Gut"},
        {"", "de_CH.UTF-8", "fr_FR", "Ok", "Localizable", "Gut"},
        {std::nullopt, std::nullopt, "../de", "Ok", "Localizable", "OK"},
        {std::nullopt, std::nullopt, "de", "Ok", "../de.lproj/Other", "Ok"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lang.value_or("-") + " " + c.key + " " + c.table);
        ScopedEnv all("LC_ALL", c.lcAll), messages("LC_MESSAGES", c.lcMessages), lang("LANG", c.lang);
        EXPECT_EQ(bundle->localizedString(c.key, c.table), c.expected);
    }
}

}  // namespace
}  // namespace zentary
