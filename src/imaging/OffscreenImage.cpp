#include "imaging/OffscreenImage.h"

#include <cstdlib>
#include <limits>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>

namespace zentary {

namespace {

// Rows start on 16-byte boundaries, as the platform's offscreen worlds did,
// so that readers must honour rowBytes and vector loads stay aligned.
constexpr std::size_t kRowAlignment = 16;

std::vector<RGBColor> grayTable() {
    // The platform's standard gray table runs white to black; the original
    // complemented it. Building the complemented ramp directly gives the
    // same table: index i is the gray level i, 0 black, 255 white.
    std::vector<RGBColor> table(256);
    for (unsigned i = 0; i < 256; ++i) {
        const auto level = static_cast<std::uint16_t>(i * 0x0101);
        table[i] = {level, level, level};
    }
    return table;
}

}  // namespace

std::unique_ptr<OffscreenImage> OffscreenImage::create(int depth, const Rect& bounds) {
    if (depth != 8 && depth != 32) return nullptr;
    const int width = bounds.width();
    const int height = bounds.height();
    if (width <= 0 || height <= 0 || width > kMaximumCoordinate || height > kMaximumCoordinate) return nullptr;

    const std::size_t rowBytes =
        (static_cast<std::size_t>(width) * static_cast<std::size_t>(depth / 8) + kRowAlignment - 1) &
        ~(kRowAlignment - 1);
    if (rowBytes > std::numeric_limits<std::size_t>::max() / static_cast<std::size_t>(height)) return nullptr;
    const std::size_t size = rowBytes * static_cast<std::size_t>(height);

    // Not zeroed on purpose: the conversion fills every byte, and clearing
    // half a gigabyte first would cost as much as reading the file.
    void* pixels = std::aligned_alloc(kRowAlignment, size);
    if (pixels == nullptr) return nullptr;

    std::unique_ptr<OffscreenImage> image(new (std::nothrow) OffscreenImage);
    if (!image) {
        std::free(pixels);
        return nullptr;
    }
    image->mDepth = depth;
    image->mBounds = bounds;
    image->mRowBytes = rowBytes;
    image->mPixels = static_cast<std::uint8_t*>(pixels);
    if (depth == 8) image->mColorTable = grayTable();
    return image;
}

std::unique_ptr<OffscreenImage> OffscreenImage::createMapped(int depth, const Rect& bounds, int fd,
                                                             std::size_t offset) {
    if (depth != 8 && depth != 32) return nullptr;
    const int width = bounds.width();
    const int height = bounds.height();
    if (width <= 0 || height <= 0 || width > kMaximumCoordinate || height > kMaximumCoordinate) return nullptr;
    // Both factors are below 2^15 and bytes per pixel at most 4: no overflow.
    const std::size_t rowBytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(depth / 8);
    const std::size_t pixelBytes = rowBytes * static_cast<std::size_t>(height);
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 0 ||
        offset > std::numeric_limits<std::size_t>::max() - pixelBytes ||
        static_cast<std::uint64_t>(info.st_size) < offset + pixelBytes)
        return nullptr;

    // The mapping starts at the file's first byte (mmap offsets are whole
    // pages); the header before `offset` costs one page at most.
    const std::size_t length = offset + pixelBytes;
    void* mapping = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
    if (mapping == MAP_FAILED) return nullptr;
    // The exporters read each row once, front to back.
    ::madvise(mapping, length, MADV_SEQUENTIAL);
    std::unique_ptr<OffscreenImage> image(new (std::nothrow) OffscreenImage);
    if (!image) {
        ::munmap(mapping, length);
        return nullptr;
    }
    image->mDepth = depth;
    image->mBounds = bounds;
    image->mRowBytes = rowBytes;
    image->mPixels = static_cast<std::uint8_t*>(mapping) + offset;
    image->mMapping = mapping;
    image->mMappingLength = length;
    if (depth == 8) image->mColorTable = grayTable();
    return image;
}

std::unique_ptr<OffscreenImage> OffscreenImage::createByExample(const OffscreenImage& example) {
    auto image = create(example.mDepth, example.mBounds);
    if (image) image->setResolution(example.mHRes, example.mVRes);
    return image;
}

OffscreenImage::~OffscreenImage() {
    if (mMapping != nullptr)
        ::munmap(mMapping, mMappingLength);
    else
        std::free(mPixels);
}

}  // namespace zentary
