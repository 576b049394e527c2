#include "imaging/OffscreenImage.h"

#include <cstdlib>
#include <limits>
#include <new>

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

std::unique_ptr<OffscreenImage> OffscreenImage::createByExample(const OffscreenImage& example) {
    auto image = create(example.mDepth, example.mBounds);
    if (image) image->setResolution(example.mHRes, example.mVRes);
    return image;
}

OffscreenImage::~OffscreenImage() {
    std::free(mPixels);
}

}  // namespace zentary
