#include <fstream>
#include <gtest/gtest.h>
#include <memory>

#include "imaging/ImageConvert.h"
#include "imaging/ImageExport.h"
#include "imaging/PictRecorder.h"
#include "imaging/RawFileReader.h"
#include "unit/imaging/RawFixture.h"

namespace zentary {
namespace {

using test::RawShape;
using Bytes = std::vector<std::uint8_t>;

// The expected image as R G B triples (gray repeated), top row first.
Bytes expectedRgb(const RawShape& shape) {
    Bytes rgb;
    for (int y = 0; y < shape.height; ++y)
        for (int x = 0; x < shape.width; ++x)
            for (int c = 0; c < 3; ++c)
                rgb.push_back(test::sample(x, y, shape.gray ? 0 : c));
    return rgb;
}

std::unique_ptr<OffscreenImage> imageOf(const test::ScratchDir& dir, const RawShape& shape) {
    return newGWorldFromRawFile(test::writeRawFile(dir, shape));
}

// The shape scanned into `dir` and saved there as `type`; the file's path,
// empty (and a failure) when either step failed.
std::string exported(const test::ScratchDir& dir, const RawShape& shape, std::uint32_t type, const char* name,
                     std::unique_ptr<OffscreenImage>* keep = nullptr) {
    auto image = imageOf(dir, shape);
    const std::string path = dir.file(name);
    const bool saved = image && ImageConvert::saveGWorld(image.get(), path.c_str(), type);
    EXPECT_TRUE(saved);
    if (keep) *keep = std::move(image);
    return saved ? path : std::string();
}

const RawShape kExportImages[] = {RawShape{5, 3, true, 300}, RawShape{7, 4, false, 150}, RawShape{1, 2, false, 72},
                                 RawShape{301, 40, true, 600}, RawShape{260, 33, false, 1200},
                                 // Widths where PICT readers disagree on the packed row length.
                                 RawShape{60, 5, false, 300}, RawShape{229, 5, true, 300},
                                 // Wider than one picture record may be: recorded in strips.
                                 RawShape{4100, 3, false, 300}, RawShape{4097, 2, false, 300},
                                 RawShape{16390, 2, true, 300}};

// TIFF and JPEG files, and these shapes' common cases, are read back by
// independent decoders in the transfer tests; the picture recorder's strips
// and row lengths are walked here, where any width can be made.
class Export : public testing::TestWithParam<RawShape> {};

// Walks a PICT file the way a reader must: every opcode known and word
// aligned, no record row past the limit, and the bit maps decoded onto a
// canvas. Returns the canvas as R G B, empty on a structural fault.
struct PictReader {
    const Bytes& b;
    std::size_t p = 512;
    bool ok = true;
    unsigned u16() {
        if (p + 2 > b.size()) return ok = false, 0;
        p += 2;
        return b[p - 2] << 8 | b[p - 1];
    }
    std::uint32_t u32() { return u16() << 16 | u16(); }
    Rect rect() {
        Rect r;
        r.top = static_cast<std::int16_t>(u16()), r.left = static_cast<std::int16_t>(u16());
        r.bottom = static_cast<std::int16_t>(u16()), r.right = static_cast<std::int16_t>(u16());
        return r;
    }
    Bytes raw(std::size_t length) {
        if (p + length > b.size()) return ok = false, Bytes{};
        p += length;
        return Bytes(b.begin() + static_cast<long>(p - length), b.begin() + static_cast<long>(p));
    }
    Bytes unpack(std::size_t length) {
        Bytes out;
        const std::size_t end = p + length;
        while (ok && p < end && p < b.size()) {
            const int n = static_cast<std::int8_t>(b[p++]);
            if (n >= 0) out.insert(out.end(), b.begin() + p, b.begin() + std::min(b.size(), p + n + 1)), p += n + 1;
            else out.insert(out.end(), 1 - n, p < b.size() ? b[p] : 0), ++p;
        }
        ok = ok && p == end;
        return out;
    }
    Bytes read(const RawShape& shape, Fixed resolution) {
        u16();
        const Rect frame = rect();
        const bool header = u16() == 0x0011 && u16() == 0x02FF && u16() == 0x0C00 && u16() == 0xFFFE && u16() == 0 &&
                            u32() == std::uint32_t(resolution) && u32() == std::uint32_t(resolution) && rect() == frame &&
                            u32() == 0 && u16() == 0x0001 && u16() == 10 && rect() == frame;
        if (!header || frame.width() != shape.width || frame.height() != shape.height) return {};
        Bytes canvas(std::size_t(shape.width) * shape.height * 3, 0);
        for (unsigned op = u16(); ok && op != 0x00FF; op = u16()) {
            if (op != 0x0098 && op != 0x009A) return {};
            const bool direct = op == 0x009A;
            if (direct && u32() != 0xFF) return {};
            const unsigned rowBytes = u16() & 0x7FFF;
            const Rect bounds = rect();
            p += 36;  // the rest of the pixel map
            if (!direct) p += 8 + 256 * 8;
            if (rect() != bounds || rect() != bounds || u16() != 0 || rowBytes > kMaximumPictureRowBytes) return {};
            const std::size_t start = p;
            for (int y = bounds.top; ok && y < bounds.bottom; ++y) {
                const std::size_t count = rowBytes < 8 ? 0 : rowBytes > 250 ? u16() : b[p++];
                const Bytes row = rowBytes < 8 ? raw(rowBytes) : unpack(count);
                const int w = bounds.width();
                for (int x = 0; ok && x < w; ++x)
                    for (int c = 0; c < 3; ++c) {
                        const std::size_t at = !direct ? x : rowBytes < 8 ? 4 * x + 1 + c : std::size_t(c) * w + x;
                        ok = ok && at < row.size();
                        canvas[(std::size_t(y) * shape.width + bounds.left + x) * 3 + c] = ok ? row[at] : 0;
                    }
            }
            if ((p - start) & 1) ++p;
        }
        return ok && p == b.size() ? canvas : Bytes{};
    }
};

TEST_P(Export, PictWalksAndDecodes) {
    const RawShape shape = GetParam();
    test::ScratchDir dir;
    std::unique_ptr<OffscreenImage> image;
    const std::string path = exported(dir, shape, kFileTypePICT, "out.pict", &image);
    ASSERT_FALSE(path.empty());
    std::ifstream in(path, std::ios::binary);
    const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_GT(file.size(), 512u);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 512), Bytes(512, 0));
    const Bytes expected = expectedRgb(shape);
    EXPECT_TRUE(PictReader{file}.read(shape, long2Fix(static_cast<std::int32_t>(shape.dpi))) == expected);

    // The picture a native transfer hands over is the file without its 512 bytes.
    Bytes picture;
    ASSERT_TRUE(recordPicture(*image, picture));
    EXPECT_TRUE(std::equal(picture.begin(), picture.end(), file.begin() + 512, file.end()));

}

INSTANTIATE_TEST_SUITE_P(Images, Export, testing::ValuesIn(kExportImages));

TEST(Export, RefusesNullAndUnknownAndLeavesNothing) {
    test::ScratchDir dir;
    auto image = imageOf(dir, RawShape{4, 4, true});
    ASSERT_TRUE(image);
    const std::string path = dir.file("out");
    EXPECT_FALSE(ImageConvert::saveGWorld(nullptr, path.c_str(), kFileTypeTIFF));
    EXPECT_FALSE(ImageConvert::saveGWorld(image.get(), nullptr, kFileTypeJPEG));
    EXPECT_FALSE(ImageConvert::saveGWorld(image.get(), path.c_str(), fourCharCode("BMPf")));
    EXPECT_FALSE(ImageConvert::saveGWorld(image.get(), dir.file("no/such/dir").c_str(), kFileTypeJPEG));
    EXPECT_TRUE(std::filesystem::is_empty(std::filesystem::path(path).parent_path().string() + "/") ||
                !std::filesystem::exists(path));
}

}  // namespace
}  // namespace zentary
