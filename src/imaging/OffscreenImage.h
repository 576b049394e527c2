// The offscreen image every transfer starts from: what a QuickDraw GWorld
// gave the original data source, reduced to the properties the transfers use.
//
// Two kinds exist. Depth 8 is indexed gray with a 256-entry table in which
// index 0 is black and 255 white, so raw gray bytes are stored unchanged.
// Depth 32 holds alpha, red, green, blue bytes in that order in memory; no
// reader may rely on the alpha byte (an image mapped from a raw scan file
// keeps whatever the scanner left there), nor on any alignment of rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace zentary {

// 16.16 fixed point, as QuickDraw keeps resolutions.
using Fixed = std::int32_t;

constexpr Fixed long2Fix(std::int32_t value) {
    return static_cast<Fixed>(static_cast<std::uint32_t>(value) << 16);
}
constexpr double fix2Double(Fixed value) {
    return static_cast<double>(value) / 65536.0;
}

// QuickDraw's rectangle: signed 16-bit coordinates, top/left/bottom/right.
struct Rect {
    std::int16_t top = 0;
    std::int16_t left = 0;
    std::int16_t bottom = 0;
    std::int16_t right = 0;
    int width() const { return right - left; }
    int height() const { return bottom - top; }
    bool operator==(const Rect&) const = default;
};

struct RGBColor {
    std::uint16_t red = 0;
    std::uint16_t green = 0;
    std::uint16_t blue = 0;
    bool operator==(const RGBColor&) const = default;
};

class OffscreenImage {
public:
    // Largest coordinate a picture or image can carry.
    static constexpr int kMaximumCoordinate = 0x7FFF;

    // A new image of depth 8 (gray, with the gray table) or 32 (ARGB).
    // Pixels are left as the allocator gives them. Null for any other depth,
    // an empty or oversized rectangle, or when the memory cannot be had.
    static std::unique_ptr<OffscreenImage> create(int depth, const Rect& bounds);

    // An image whose rows are the bytes of the regular file `fd` from
    // `offset` on, back to back (rowBytes = width x bytes per pixel), mapped
    // privately: writes stay in this process, and no pixel is copied until
    // it is written. Null under the same rules as create(), and when the
    // file is shorter than the rows need (touching a page past its end would
    // kill the process) or cannot be mapped. The descriptor may be closed
    // afterwards; the mapping lives as long as the image.
    static std::unique_ptr<OffscreenImage> createMapped(int depth, const Rect& bounds, int fd, std::size_t offset);

    // Same depth, bounds and resolution as `example`, pixels not copied.
    static std::unique_ptr<OffscreenImage> createByExample(const OffscreenImage& example);

    ~OffscreenImage();
    OffscreenImage(const OffscreenImage&) = delete;
    OffscreenImage& operator=(const OffscreenImage&) = delete;

    int depth() const { return mDepth; }
    int bytesPerPixel() const { return mDepth / 8; }
    const Rect& bounds() const { return mBounds; }
    int width() const { return mBounds.width(); }
    int height() const { return mBounds.height(); }
    std::size_t rowBytes() const { return mRowBytes; }
    std::uint8_t* baseAddress() { return mPixels; }
    const std::uint8_t* baseAddress() const { return mPixels; }
    std::uint8_t* row(int y) { return mPixels + static_cast<std::size_t>(y) * mRowBytes; }
    const std::uint8_t* row(int y) const { return mPixels + static_cast<std::size_t>(y) * mRowBytes; }

    Fixed hRes() const { return mHRes; }
    Fixed vRes() const { return mVRes; }
    void setResolution(Fixed hRes, Fixed vRes) {
        mHRes = hRes;
        mVRes = vRes;
    }

    // The colour table of an indexed image (256 entries), empty for direct colour.
    std::span<const RGBColor> colorTable() const { return mColorTable; }

private:
    OffscreenImage() = default;

    int mDepth = 0;
    Rect mBounds;
    std::size_t mRowBytes = 0;
    std::uint8_t* mPixels = nullptr;
    // Set for a mapped image: what munmap needs, mPixels lying inside it.
    void* mMapping = nullptr;
    std::size_t mMappingLength = 0;
    Fixed mHRes = long2Fix(72);
    Fixed mVRes = long2Fix(72);
    std::vector<RGBColor> mColorTable;
};

}  // namespace zentary
