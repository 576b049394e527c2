// The parts of zentary-scan that read what users type and what the data
// source sends back, without a scanner.
#include <gtest/gtest.h>


#include <cstring>
#include <fstream>

#include "Documents.h"
#include "ImageOutput.h"
#include "ScanOptions.h"
#include "emulator/PageImage.h"
#include "support/TestEnvironment.h"

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
    EXPECT_EQ(formatForPath("x.PNG"), OutputFormat::Png);
    EXPECT_EQ(formatForPath("x.pdf"), OutputFormat::Pdf);
    EXPECT_EQ(formatForPath("x.bmp"), std::nullopt);
    EXPECT_EQ(formatForPath("tif"), std::nullopt);
}

TEST(ScanOptions, PagePatternsHoldExactlyOneNumber)
{
    struct Case {
        const char* pattern;
        const char* page7;  // null: refused
    } cases[] = {
        {"page-%03d.png", "page-007.png"}, {"p%d.jpg", "p7.jpg"},      {"100%%-%d.png", "100%-7.png"},
        {"%4d.pct", "   7.pct"},           {"dir%%/%02d", "dir%/07"},   {"x.png", nullptr},
        {"%d-%d.png", nullptr},            {"%ld.png", nullptr},        {"%s.png", nullptr},
        {"%-3d.png", nullptr},             {"%123d.png", nullptr},      {"%.3d.png", nullptr},
        {"page%", nullptr},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_EQ(validPagePattern(c.pattern, &error), c.page7 != nullptr) << c.pattern;
        if (c.page7) {
            EXPECT_EQ(pagePath(c.pattern, 7), c.page7);
        }
    }
}

TEST(PageImage, EveryFormatGivesThePicturesPixels)
{
    // One gray ramp picture, rewritten by ImageMagick in each form a user may
    // put on the glass; JPEG may be off by a little, the others not at all.
    test::ScratchDir scratch;
    auto image = OffscreenImage::create(8, Rect{0, 0, 300, 200});
    ASSERT_TRUE(image);
    for (int y = 0; y < 300; ++y) std::memset(image->row(y), y % 256, 200);
    std::string png = scratch.file("ramp.png"), error;
    ASSERT_TRUE(writePng(*image, png));
    struct Case {
        const char* name;
        const char* options;
        int tolerance;
    } cases[] = {
        {"strips.tif", "-compress none", 0},           {"lzw.tif", "-compress lzw -type TrueColor", 0},
        {"tiles.tif", "-define tiff:tile-geometry=64x64", 0}, {"alpha.tif", "-alpha set", 0},
        {"gray.jpg", "-quality 100", 2},               {"rgb.jpg", "-quality 100 -type TrueColor", 2},
        {"rgba.png", "-alpha set -type TrueColorAlpha", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = scratch.file(c.name);
        test::commandOutput("convert '" + png + "' " + c.options + " '" + path + "' 2>&1");
        auto page = PageImage::load(path, &error);
        ASSERT_TRUE(page) << error;
        ASSERT_EQ(page->width(), 200u);
        ASSERT_EQ(page->height(), 300u);
        for (std::uint32_t y : {0u, 1u, 128u, 255u, 299u})
            for (std::uint32_t x : {0u, 199u}) {
                EXPECT_NEAR(page->gray(x, y), int(y % 256), c.tolerance) << x << "," << y;
                EXPECT_NEAR(page->color(x, y).g, int(y % 256), c.tolerance) << x << "," << y;
            }
    }
    // Anything else is refused with a reason, never half read.
    std::string bytes = test::readFile(scratch.file("strips.tif"));
    for (std::string broken : {std::string("plain text"), bytes.substr(0, bytes.size() / 2),
                               test::readFile(scratch.file("gray.jpg")).substr(0, 200)}) {
        SCOPED_TRACE(broken.size());
        std::string path = scratch.file("broken"), why;
        std::ofstream(path, std::ios::binary) << broken;
        EXPECT_FALSE(PageImage::load(path, &why));
        EXPECT_FALSE(why.empty());
    }
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
    // Compression, BytesPerRow, Columns, Rows, XOffset, YOffset, BytesWritten.
    auto strip = [](TW_UINT32 bytesPerRow, TW_UINT32 rows, TW_UINT32 yOffset, TW_UINT32 written) {
        return TW_IMAGEMEMXFER{twain::TWCP_NONE, bytesPerRow, 5, rows, 0, yOffset, written, {}};
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
