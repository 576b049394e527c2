// Hand-made definition files: loading, dependency propagation, narrowing,
// reset, array containers, and files that must be refused.
#include <gtest/gtest.h>

#include "CapabilityTestSupport.h"

namespace zentary::test {
namespace {

using namespace twain;
using C = Capabilities;
using V = CapabilityValue;

constexpr TW_UINT16 A = 0x0A01, B = 0x0A02, Cc = 0x0A03, FixArray = 0x0A05, BoolArray = 0x0A06, BoolEnum = 0x0A07;

std::string deps(const char* key, int value)
{
    return std::string("<key>") + key + "</key><integer>" + std::to_string(value) + "</integer>";
}

// A: 0, 1, 2. B depends on A: 1-4 for A=0, 1-3 for A=2, 9 for A=1 (an entry
// after the power-on one, so 9 is not "valid in some state"). C follows B x10.
std::string chainModel()
{
    std::string c;
    for (int b : {1, 2, 3, 4}) c += entry(ints({b * 10}), ints({b * 10}).c_str(), deps("0x0A02", b));
    return "<dict>" + record("0x0A01", TWON_ENUMERATION, TWTY_UINT16, ints({0}), entry(ints({0, 1, 2}), ints({0}))) +
           record("0x0A02", TWON_ENUMERATION, TWTY_UINT16, ints({4}),
                  entry(ints({1, 2, 3, 4}), ints({1}), deps("0x0A01", 0)) +
                      entry(ints({1, 2, 3}), ints({2}), deps("0x0A01", 2)) +
                      entry(ints({9}), ints({9}), deps("0x0A01", 1)),
                  "<key>DependsOn</key><array><string>0x0A01</string></array>") +
           record("0x0A03", TWON_ENUMERATION, TWTY_UINT16, ints({40}), c,
                  "<key>DependsOn</key><array><string>0x0A02</string></array>") +
           record("0x0A05", TWON_ARRAY, TWTY_FIX32, "<array/>", entry("", "<array/>")) +
           record("0x0A06", TWON_ARRAY, TWTY_BOOL, "<array><true/><false/></array>", entry("", "<array/>")) +
           record("0x0A07", TWON_ENUMERATION, TWTY_BOOL, "<true/>", entry("<true/><false/>", "<true/>")) + "</dict>";
}

std::vector<V> nums(std::initializer_list<int> values)
{
    return {values.begin(), values.end()};
}

TEST(Definitions, ChangesPropagateDepthFirstAndFailuresRestoreOnlyTheChangedValue)
{
    TempModel model(chainModel());
    std::string error;
    auto store = model.load(&error);
    ASSERT_TRUE(store) << error;
    EXPECT_EQ(store->allValidValues(B), nums({1, 2, 3, 4}));
    EXPECT_EQ(store->currentValue(Cc), V(40));

    struct Step {
        TW_UINT16 cap;
        int value;
        TW_UINT16 cc;
        int a, b, c;
        std::vector<V> bValid;
        int bDefault;
    } steps[] = {
        {B, 4, 0, 0, 4, 40, nums({1, 2, 3, 4}), 1},                   // same value: nothing moves
        {A, 2, 0, 2, 2, 20, nums({1, 2, 3}), 2},                      // B's 4 is gone: default, then C follows
        {B, 4, TWCC_CAPSEQERROR, 2, 2, 20, nums({1, 2, 3}), 2},       // valid only with another A
        {B, 5, TWCC_BADVALUE, 2, 2, 20, nums({1, 2, 3}), 2},          // never valid
        {A, 0, 0, 0, 2, 20, nums({1, 2, 3, 4}), 1},                   // 2 stays valid: C untouched
        {B, 9, TWCC_BADVALUE, 0, 2, 20, nums({1, 2, 3, 4}), 1},       // entry after the power-on one
        {A, 1, TWCC_BUMMER, 0, 9, 20, nums({1, 2, 3, 4}), 9},         // C has no entry for B=9
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(testing::Message() << s.cap << "=" << s.value);
        EXPECT_EQ(store->setCurrentValue(s.cap, s.value), s.cc);
        EXPECT_EQ(std::vector({store->currentValue(A), store->currentValue(B), store->currentValue(Cc),
                               store->defaultValue(B)}),
                  std::vector<std::optional<V>>({V(s.a), V(s.b), V(s.c), V(s.bDefault)}));
        EXPECT_EQ(store->currentValidValues(B), s.bValid);
    }
}

TEST(Definitions, BrokenFilesAreRefusedWithTheReason)
{
    const std::string ok = entry(ints({1}), ints({1}));
    auto one = [&](const std::string& key, const std::string& extra = "", const std::string& entries = "") {
        return record(key, TWON_ONEVALUE, TWTY_UINT16, ints({1}), entries.empty() ? ok : entries, extra);
    };
    const std::string dependsOnB = "<key>DependsOn</key><array><string>0x0B02</string></array>";
    struct Row {
        const char* what;
        std::string body;
        const char* error;
    } rows[] = {
        {"not a plist", "<dict><key>0x0001", "not an XML property list"},
        {"root not a dictionary", "<array/>", "not an XML property list"},
        {"decimal key", "<dict>" + one("4376") + "</dict>", "key 4376: not of the form 0x%04.4X"},
        {"lower-case key", "<dict>" + one("0x111a") + "</dict>", "key 0x111a: not of the form"},
        {"supported caps", "<dict>" + one("0x1005") + "</dict>", "CAP_SUPPORTEDCAPS"},
        {"missing key",
         "<dict><key>0x0B01</key><dict><key>ItemType</key><integer>4</integer></dict></dict>",
         "key 0x0B01: \"ContainerType\" is missing"},
        {"wrong type", "<dict>" + record("0x0B01", TWON_ONEVALUE, 9, ints({1}), ok) + "</dict>",
         "\"ItemType\" is not an integer from 0 to 8"},
        {"value too wide", "<dict>" + record("0x0B01", TWON_ONEVALUE, TWTY_UINT8, ints({1}), entry(ints({300}), ints({1}))) + "</dict>",
         "entry 0: \"Values element 0\" does not fit item type 3"},
        {"entry without default", "<dict>" + one("0x0B01", "", "<dict><key>Dependencies</key><dict/><key>Values</key><array/></dict>") + "</dict>",
         "entry 0: \"DefaultValue\" is missing"},
        {"depends on nothing", "<dict>" + one("0x0B01", dependsOnB) + "</dict>",
         "\"DependsOn\" names 0x0B02, which the file does not define"},
        {"cycle",
         "<dict>" + one("0x0B01", dependsOnB) +
             one("0x0B02", "<key>DependsOn</key><array><string>0x0B01</string></array>") + "</dict>",
         "cycle"},
        {"no entry for the power-on state", "<dict>" + one("0x0B01", dependsOnB) + one("0x0B02") + "</dict>",
         "key 0x0B01: no \"ValidValues\" entry applies"},
        {"run-time key", "<dict>" + one("0x0B01", "<key>CurrentValue</key><integer>1</integer>") + "</dict>",
         "\"CurrentValue\" must not be in the file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        TempModel model(row.body);
        std::string error;
        EXPECT_FALSE(model.load(&error));
        EXPECT_NE(error.find(row.error), std::string::npos) << error;
        EXPECT_NE(error.find("Test_Model.plist"), std::string::npos) << error;
    }
    std::string error;
    EXPECT_FALSE(Capabilities::initWithModel("Missing Model", false, "/nonexistent", &error));
    EXPECT_NE(error.find("/nonexistent/Missing_Model.plist"), std::string::npos) << error;
}

}  // namespace
}  // namespace zentary::test
