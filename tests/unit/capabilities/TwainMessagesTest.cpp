// The DAT_CAPABILITY messages on the shipped definition file: what a client
// receives, byte by byte, and what it may set.
#include <gtest/gtest.h>

#include "CapabilityTestSupport.h"

namespace zentary::test {
namespace {

using namespace twain;
using C = Capabilities;

TEST(TwainMessages, ContainersCarryTheValuesInTheLinuxLayout)
{
    auto store = realStore();
    ASSERT_TRUE(store);
    // Enumeration: ItemType, NumItems, CurrentIndex, DefaultIndex, then items at 14.
    auto pixel = send(*store, &C::getTwain, ICAP_PIXELTYPE).bytes;
    pixel.resize(18);  // the record's one-item list is the handle's last byte
    EXPECT_EQ(pixel, enumeration(TWTY_UINT16, {TWPT_GRAY, TWPT_RGB}, 1, 1));
    // A signed one-value is widened with its sign: -1 fills all of Item.
    EXPECT_EQ(send(*store, &C::getCurrentTwain, CAP_XFERCOUNT).bytes, oneValue(TWTY_INT16, 0xFFFFFFFFu));
    // TW_FIX32 one-value: Whole then Frac inside Item. 8.5 inches.
    EXPECT_EQ(send(*store, &C::getCurrentTwain, ICAP_PHYSICALWIDTH).bytes, oneValue(TWTY_FIX32, fix(8, 32768)));
    // Query: TWTY_INT16 bitmap.
    EXPECT_EQ(send(*store, &C::querySupportTwain, ICAP_XRESOLUTION).bytes, oneValue(TWTY_INT16, 31));
    EXPECT_EQ(send(*store, &C::querySupportTwain, CAP_SUPPORTEDCAPS).u32(2), 13u);
    // Array: CAP_SUPPORTEDCAPS starts with itself and names each capability once.
    auto caps = send(*store, &C::getTwain, CAP_SUPPORTEDCAPS);
    ASSERT_EQ(caps.u32(2), 21u);
    EXPECT_EQ(caps.u16(6), CAP_SUPPORTEDCAPS);
    std::set<TW_UINT16> seen;
    for (std::uint32_t i = 1; i < 21; ++i) seen.insert(caps.u16(6 + 2 * i));
    EXPECT_EQ(seen.size(), 20u);
    EXPECT_FALSE(seen.count(CAP_SUPPORTEDCAPS));
    EXPECT_TRUE(seen.count(ICAP_FRAMES) && seen.count(ICAP_BITORDER));
    EXPECT_EQ(send(*store, &C::getCurrentTwain, ICAP_BITORDER).u32(2), TWBO_MSBFIRST);
}

TEST(TwainMessages, SetChecksTheClientsContainerBeforeItsValue)
{
    // A handle we did not allocate has no known size; a fixed header is read,
    // a list is not walked beyond kMaxUnsizedItems.
    std::uint8_t foreign[14] = {};
    auto hugeEnumeration = enumeration(TWTY_UINT16, {}, 0);
    std::memcpy(foreign, hugeEnumeration.data(), 14);
    const std::uint32_t tooMany = containers::kMaxUnsizedItems + 1;
    std::memcpy(foreign + 2, &tooMany, 4);

    struct Row {
        const char* what;
        TW_UINT16 cap, conType;
        std::vector<std::uint8_t> bytes;
        TW_UINT16 cc;
    } rows[] = {
        {"valid one-value", ICAP_PIXELTYPE, TWON_ONEVALUE, oneValue(TWTY_UINT16, TWPT_GRAY), 0},
        {"other item type, valid number", ICAP_PIXELTYPE, TWON_ONEVALUE, oneValue(TWTY_INT32, TWPT_GRAY), TWCC_BADVALUE},
        {"value not offered", ICAP_PIXELTYPE, TWON_ONEVALUE, oneValue(TWTY_UINT16, 3), TWCC_BADVALUE},
        {"range", ICAP_PIXELTYPE, TWON_RANGE, oneValue(TWTY_UINT16, 1), TWCC_BUMMER},
        {"array for an enumeration", ICAP_PIXELTYPE, TWON_ARRAY, array(TWTY_UINT16, {1}), TWCC_BADVALUE},
        {"one-value for an array", CAP_SUPPORTEDCAPS, TWON_ONEVALUE, oneValue(TWTY_UINT16, 1), TWCC_CAPBADOPERATION},
        {"current index past the list", ICAP_PIXELTYPE, TWON_ENUMERATION, enumeration(TWTY_UINT16, {1, 2}, 2), TWCC_BUMMER},
        {"default index is ignored", ICAP_PIXELTYPE, TWON_ENUMERATION, enumeration(TWTY_UINT16, {1, 2}, 0, 9), 0},
        {"truncated header", ICAP_PIXELTYPE, TWON_ONEVALUE, {4, 0, 1}, TWCC_BADVALUE},
        {"no room for the item type", ICAP_PIXELTYPE, TWON_ONEVALUE, {4}, TWCC_BADVALUE},
        {"NumItems beyond the handle", ICAP_PIXELTYPE, TWON_ENUMERATION,
         [] {
             auto b = enumeration(TWTY_UINT16, {1, 2}, 0);
             b[2] = 200;
             return b;
         }(),
         TWCC_BADVALUE},
        {"empty enumeration", ICAP_PIXELTYPE, TWON_ENUMERATION, enumeration(TWTY_UINT16, {}, 0), TWCC_BUMMER},
        {"frame cut short", ICAP_FRAMES, TWON_ONEVALUE, [] { std::vector<std::uint8_t> b(2 + 15); b[0] = TWTY_FRAME; return b; }(), TWCC_BADVALUE},
        {"boolean one-value reads its low byte", CAP_INDICATORS, TWON_ONEVALUE, oneValue(TWTY_BOOL, 0x0100), 0},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.what);
        auto store = realStore();
        auto r = set(*store, row.cap, row.conType, row.bytes);
        EXPECT_EQ(r.rc, row.cc ? TWRC_FAILURE : TWRC_SUCCESS);
        EXPECT_EQ(r.cc, row.cc);
    }
    auto store = realStore();
    EXPECT_EQ(store->currentValue(CAP_INDICATORS), CapabilityValue(1));
    EXPECT_EQ(set(*store, CAP_INDICATORS, TWON_ONEVALUE, oneValue(TWTY_BOOL, 0x0100)).rc, TWRC_SUCCESS);
    EXPECT_EQ(store->currentValue(CAP_INDICATORS), CapabilityValue(0));
    TW_CAPABILITY unsized{ICAP_PIXELTYPE, TWON_ENUMERATION, foreign};
    TW_UINT16 cc = 0;
    EXPECT_EQ(store->setTwain(&unsized, &cc), TWRC_FAILURE);
    EXPECT_EQ(cc, TWCC_BADVALUE);
}

TEST(TwainMessages, ResolutionSetsTheSquarePixelAndReadirisSendsSixteenDotSixteen)
{
    struct Row {
        bool readiris;
        std::uint32_t item;
        TW_UINT16 cc;
        std::int16_t resolution;
    } rows[] = {
        {false, fix(600), 0, 600},
        {true, 600u << 16, 0, 600},
        // The same bytes mean (0, 600) to the Readiris reading: no such resolution.
        {true, fix(600), TWCC_BADVALUE, 300},
        {false, fix(600, 1), TWCC_BADVALUE, 300},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.item);
        auto store = realStore(row.readiris);
        EXPECT_EQ(set(*store, ICAP_XRESOLUTION, TWON_ONEVALUE, oneValue(TWTY_FIX32, row.item)).cc, row.cc);
        EXPECT_EQ(store->currentValue(ICAP_XRESOLUTION), CapabilityValue::fix32(row.resolution, 0));
        EXPECT_EQ(store->currentValue(ICAP_YRESOLUTION), CapabilityValue::fix32(row.resolution, 0));
        // Containers we build never use the Readiris layout.
        EXPECT_EQ(send(*store, &C::getCurrentTwain, ICAP_YRESOLUTION).u32(2), fix(row.resolution));
    }
    auto store = realStore();
    // Y alone may only follow X.
    EXPECT_EQ(set(*store, ICAP_YRESOLUTION, TWON_ONEVALUE, oneValue(TWTY_FIX32, fix(600))).cc, TWCC_CAPSEQERROR);
    EXPECT_EQ(set(*store, ICAP_YRESOLUTION, TWON_ENUMERATION, enumeration(TWTY_FIX32, {fix(600)}, 0)).cc,
              TWCC_BADVALUE);
    EXPECT_EQ(store->setCurrentValue(ICAP_PIXELTYPE, TWPT_GRAY), TWCC_SUCCESS);
    EXPECT_EQ(store->currentValue(ICAP_BITDEPTH), CapabilityValue(8));
    EXPECT_EQ(set(*store, ICAP_BITDEPTH, TWON_ONEVALUE, oneValue(TWTY_UINT16, 24)).cc, TWCC_CAPSEQERROR);
    auto reset = send(*store, &C::resetTwain, ICAP_PIXELTYPE);
    EXPECT_EQ(reset.u32(2), TWPT_RGB);
    EXPECT_EQ(store->currentValue(ICAP_BITDEPTH), CapabilityValue(24));
}

}  // namespace
}  // namespace zentary::test
