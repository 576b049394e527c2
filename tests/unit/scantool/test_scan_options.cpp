// The parts of zentary-scan that read what users type and what the data
// source sends back, without a scanner.
#include <gtest/gtest.h>

#include <cmath>

#include "ImageOutput.h"
#include "ScanOptions.h"

namespace zentary {
namespace {

TEST(ScanOptions, AreasAndFormatsAreReadAsUsersWriteThem)
{
    struct Case {
        const char* text;
        std::optional<ScanArea> area;
    } cases[] = {
        {"letter", ScanArea{0, 0, 8.5, 11}},
        {"A4", ScanArea{0, 0, 210 / 25.4, 297 / 25.4}},
        {"1,0.5,2,3", ScanArea{1, 0.5, 2, 3}},
        {"1, 0.5, 2, 3in", ScanArea{1, 0.5, 2, 3}},
        {"25.4,12.7,50.8,76.2mm", ScanArea{1, 0.5, 2, 3}},
        {"1,2,3", std::nullopt},
        {"1,2,3,4,5", std::nullopt},
        {"-1,0,2,2", std::nullopt},
        {"0,0,0,2", std::nullopt},
        {"0,0,2,2cm", std::nullopt},
    };
    for (const Case& c : cases) {
        ScanArea area{};
        std::string error;
        bool ok = parseArea(c.text, &area, &error);
        EXPECT_EQ(ok, c.area.has_value()) << c.text;
        if (ok && c.area) {
            EXPECT_NEAR(area.left, c.area->left, 1e-9) << c.text;
            EXPECT_NEAR(area.top, c.area->top, 1e-9) << c.text;
            EXPECT_NEAR(area.width, c.area->width, 1e-9) << c.text;
            EXPECT_NEAR(area.height, c.area->height, 1e-9) << c.text;
        }
        if (!ok) {
            EXPECT_FALSE(error.empty()) << c.text;
        }
    }
    EXPECT_EQ(formatForPath("a/Scan.TIFF"), OutputFormat::Tiff);
    EXPECT_EQ(formatForPath("x.jpeg"), OutputFormat::Jpeg);
    EXPECT_EQ(formatForPath("x.pct"), OutputFormat::Pict);
    EXPECT_EQ(formatForPath("x.png"), std::nullopt);
    EXPECT_EQ(formatForPath("tif"), std::nullopt);
}

TEST(StripAssembler, RefusesStripsThatDoNotFitTheImage)
{
    TW_IMAGEINFO info{};
    info.XResolution = {150, 0};
    info.ImageWidth = 5;
    info.ImageLength = 4;
    info.BitsPerPixel = 24;
    info.PixelType = twain::TWPT_RGB;
    std::string error;
    auto assembler = StripAssembler::create(info, &error);
    ASSERT_TRUE(assembler) << error;
    std::vector<std::uint8_t> buffer(18 * 4, 7);  // 15 data bytes padded by 3
    auto strip = [](TW_UINT32 bytesPerRow, TW_UINT32 rows, TW_UINT32 yOffset, TW_UINT32 written) {
        TW_IMAGEMEMXFER s{};
        s.BytesPerRow = bytesPerRow;
        s.Columns = 5;
        s.Rows = rows;
        s.YOffset = yOffset;
        s.BytesWritten = written;
        return s;
    };
    EXPECT_FALSE(assembler->add(strip(18, 5, 0, 90), buffer, &error)) << "more rows than the image";
    EXPECT_FALSE(assembler->add(strip(18, 4, 0, 90), buffer, &error)) << "more bytes than the buffer";
    EXPECT_FALSE(assembler->add(strip(14, 1, 0, 14), buffer, &error)) << "row shorter than its pixels";
    EXPECT_FALSE(assembler->add(strip(18, 1, 2, 18), buffer, &error)) << "rows out of order";
    ASSERT_TRUE(assembler->add(strip(18, 3, 0, 54), buffer, &error)) << error;
    EXPECT_FALSE(assembler->complete());
    ASSERT_TRUE(assembler->add(strip(18, 1, 3, 18), buffer, &error)) << error;
    EXPECT_TRUE(assembler->complete());
    auto image = assembler->take();
    EXPECT_EQ(image->row(3)[4 * 4 + 3], 7);  // last pixel's blue byte
}

}  // namespace
}  // namespace zentary
