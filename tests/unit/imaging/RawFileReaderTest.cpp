#include <fcntl.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <gtest/gtest.h>
#include <unistd.h>

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

// Every damaged or foreign file gives no image, and never a read past its end.
// What the header itself may hold is the scanner library's check, tested there.
TEST(RawConversion, RefusesBadFiles) {
    test::ScratchDir dir;
    const RawShape good{4, 3, false};
    struct Case {
        const char* name;
        void (*damage)(RawFileHeader&);
        std::size_t headerBytes;
        std::size_t pixelBytes;
    };
    const std::size_t all = 48;
    const Case cases[] = {
        {"empty", [](RawFileHeader&) {}, 0, 0},
        {"half a header", [](RawFileHeader&) {}, 20, 0},
        {"header only", [](RawFileHeader&) {}, 32, 0},
        {"less than one row", [](RawFileHeader&) {}, 32, 15},
        {"zero rows", [](RawFileHeader& h) { h.rows = 0; }, 32, all},
        {"width past 16 bits", [](RawFileHeader& h) { h.pixelsPerRow = 32768; }, 32, all},
        {"rows overflow", [](RawFileHeader& h) { h.rows = 0xFFFFFFFF; }, 32, all},
        {"one-bit gray", [](RawFileHeader& h) { h.colorType = 1, h.bytesPerPixel = 1, h.bitsPerSample = 1; }, 32, all},
    };
    for (const Case& c : cases) {
        RawFileHeader header = test::rawHeader(good);
        c.damage(header);
        auto pixels = test::rawPixels(good);
        pixels.resize(c.pixelBytes);
        const std::string path = dir.file("bad.raw");
        test::writeRawFile(path, header, pixels, c.headerBytes);
        EXPECT_FALSE(newGWorldFromRawFile(path)) << c.name;
    }
    EXPECT_FALSE(newGWorldFromRawFile(dir.file("missing.raw")));
    EXPECT_FALSE(newGWorldFromRawFile("/tmp"));
}

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

// A complete file is read in place: the image must neither write through to
// the file nor depend on the file staying where it was.
TEST(RawConversion, ImageIsPrivateAndOutlivesTheFile) {
    test::ScratchDir dir;
    const RawShape shape{7, 3, false};
    const std::string path = test::writeRawFile(dir, shape);
    auto image = newGWorldFromRawFile(path);
    ASSERT_TRUE(image);
    std::memset(image->row(1), 0x11, image->rowBytes());
    const std::string file = test::readFile(path);
    const auto pixels = test::rawPixels(shape);
    EXPECT_TRUE(std::equal(pixels.begin(), pixels.end(), file.begin() + kRawFileHeaderLength,
                           [](std::uint8_t a, char b) { return a == std::uint8_t(b); }));
    ASSERT_EQ(std::remove(path.c_str()), 0);
    EXPECT_EQ(image->row(2)[3], pixels[2 * 4 * 7 + 3]);
    EXPECT_EQ(image->row(1)[27], 0x11);
}

TEST(RawHeader, ReadsAndRecognises) {
    test::ScratchDir dir;
    const std::string raw = test::writeRawFile(dir, RawShape{5, 3, true, 300});
    struct Case {
        std::string name;
        std::vector<std::uint8_t> bytes;
        bool isRaw;
        bool hasHeader;
    };
    const Case cases[] = {
        {"empty", {}, false, false},
        {"two bytes", {0x46, 0x77}, false, false},
        {"signature only", {0x46, 0x77, 0x61, 0x72}, true, false},
        {"tiff", {'I', 'I', 42, 0, 8, 0, 0, 0}, false, false},
        {"32 zero bytes", std::vector<std::uint8_t>(32), false, true},
    };
    for (const Case& c : cases) {
        const std::string path = dir.file(c.name);
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(c.bytes.data()),
                                                    static_cast<std::streamsize>(c.bytes.size()));
        RawFileHeader header{};
        EXPECT_EQ(ImageConvert::isScanRawFile(path), c.isRaw) << c.name;
        EXPECT_EQ(readRawScanFileHeader(&header, path), c.hasHeader) << c.name;
    }
    EXPECT_TRUE(ImageConvert::isScanRawFile(raw));

    // From an open file: the offset stays where the caller had it, whatever the answer.
    const int fd = ::open(raw.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::lseek(fd, 7, SEEK_SET), 7);
    RawFileHeader header{};
    ASSERT_TRUE(readRawScanFileHeader(&header, fd));
    EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 7);
    EXPECT_EQ(std::tuple(header.resolution, header.pixelsPerRow, header.rows), std::tuple(300u, 5u, 3u));
    ::close(fd);
    const int empty = ::open(dir.file("empty").c_str(), O_RDONLY);
    RawFileHeader untouched{};
    untouched.rows = 77;
    EXPECT_FALSE(readRawScanFileHeader(&untouched, empty));
    EXPECT_EQ(untouched.rows, 77u);
    ::close(empty);
}

}  // namespace
}  // namespace zentary
