#include <fcntl.h>
#include <cstring>
#include <iterator>
#include <gtest/gtest.h>

#include "imaging/ImageConvert.h"
#include "imaging/RawFileReader.h"
#include "unit/imaging/RawFixture.h"

namespace zentary {
namespace {

using test::RawShape;

class RawConversion : public testing::TestWithParam<RawShape> {};

TEST_P(RawConversion, PixelsResolutionAndTableAreExact) {
    const RawShape shape = GetParam();
    test::ScratchDir dir;
    auto image = newGWorldFromRawFile(test::writeRawFile(dir, shape));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->bounds(), (Rect{0, 0, static_cast<std::int16_t>(shape.height), static_cast<std::int16_t>(shape.width)}));
    EXPECT_EQ(std::tuple(image->depth(), image->hRes(), image->vRes()),
              std::tuple(shape.gray ? 8 : 32, Fixed(shape.dpi) << 16, Fixed(shape.dpi) << 16));
    EXPECT_GE(image->rowBytes(), static_cast<std::size_t>(shape.width * image->bytesPerPixel()));
    if (shape.gray) {
        ASSERT_EQ(image->colorTable().size(), 256u);
        EXPECT_EQ(image->colorTable()[0], (RGBColor{0, 0, 0}));
        EXPECT_EQ(image->colorTable()[255], (RGBColor{0xFFFF, 0xFFFF, 0xFFFF}));
    } else {
        EXPECT_TRUE(image->colorTable().empty());
    }
    const auto stored = test::rawPixels(shape);
    const std::size_t storedRow = stored.size() / static_cast<std::size_t>(shape.height);
    for (int y = 0; y < shape.height; ++y) {
        std::vector<std::uint8_t> expected(stored.begin() + static_cast<long>(storedRow * y),
                                           stored.begin() + static_cast<long>(storedRow * (y + 1)));
        std::vector<std::uint8_t> got(image->row(y), image->row(y) + storedRow);
        // The first byte of a colour pixel means nothing to any reader.
        if (!shape.gray)
            for (std::size_t i = 0; i < expected.size(); i += 4) expected[i] = got[i] = 0;
        ASSERT_EQ(got, expected) << "row " << y;
    }
}

INSTANTIATE_TEST_SUITE_P(Images, RawConversion,
                         testing::Values(RawShape{5, 3, true, 300}, RawShape{2, 2, false, 150}, RawShape{16, 9, true, 600},
                                         RawShape{1, 1, false, 1200},
                                         // Rows padded in memory and more rows than one read block holds.
                                         RawShape{1003, 700, false, 75}, RawShape{4099, 200, true, 32767}));

// A scan cut short keeps the rows it has; the rows never scanned are white.
TEST(RawConversion, ShortFileKeepsItsRowsAndFillsWhite) {
    test::ScratchDir dir;
    for (const bool gray : {true, false}) {
        const RawShape shape{6, 5, gray};
        auto pixels = test::rawPixels(shape);
        const std::size_t storedRow = pixels.size() / 5;
        pixels.resize(storedRow * 2 + storedRow / 2);  // two rows and a half
        const std::string path = dir.file("short.raw");
        test::writeRawFile(path, test::rawHeader(shape), pixels);
        auto image = newGWorldFromRawFile(path);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->height(), 5);
        EXPECT_EQ(image->row(1)[storedRow - 1], pixels[2 * storedRow - 1]);
        for (int y = 2; y < 5; ++y)
            for (std::size_t i = 0; i < storedRow; ++i) ASSERT_EQ(image->row(y)[i], 0xFF) << gray << " row " << y;
    }
}

}  // namespace
}  // namespace zentary
