// A picture on the emulated glass in place of the test chart
// (emulator:image=PATH): any PNG, JPEG or TIFF, decoded by its own library,
// kept at its own size and scaled to the glass only as rows are asked for, so
// a 1200 dpi scan of a 300 dpi page never holds more than the page itself.
//
// The picture is fitted to the glass from its top-left corner, keeping its
// proportions: a letter page at any resolution covers 8.5 x 11 inches and
// the strip below it is white, as on a real scanner.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "emulator/TestChart.h"

namespace zentary {

class PageImage {
public:
    // The whole 8.5 x 11.7 inch glass at the scanner's 1200 dpi: nothing
    // larger has anything to show.
    static constexpr std::uint64_t kMaximumPixels = std::uint64_t(chart::kGlassWidth) * chart::kGlassHeight;

    // Null with a one-line reason for anything that is not a readable PNG,
    // JPEG or TIFF of at most `maximumPixels`.
    static std::shared_ptr<const PageImage> decode(std::span<const std::uint8_t> bytes, std::string* error,
                                                   std::uint64_t maximumPixels = kMaximumPixels);
    static std::shared_ptr<const PageImage> load(const std::string& path, std::string* error);

    std::uint32_t width() const { return mWidth; }
    std::uint32_t height() const { return mHeight; }
    std::uint32_t channels() const { return mChannels; }  // 1 gray, 3 RGB

    // The picture's column or row at a glass position (1/1200 inch), or
    // width()/height() where the glass shows white.
    std::uint32_t column(std::uint32_t glassX) const { return toPicture(glassX, mWidth); }
    std::uint32_t row(std::uint32_t glassY) const { return toPicture(glassY, mHeight); }
    // A pixel; (width(), y) or (x, height()) is white.
    chart::Rgb color(std::uint32_t x, std::uint32_t y) const;
    std::uint8_t gray(std::uint32_t x, std::uint32_t y) const;

private:
    PageImage(std::uint32_t width, std::uint32_t height, std::uint32_t channels);
    std::uint32_t toPicture(std::uint32_t glass, std::uint32_t limit) const
    {
        std::uint64_t at = std::uint64_t(glass) * mPicturePerGlass / mGlassPerPicture;
        return at < limit ? std::uint32_t(at) : limit;
    }

    std::uint32_t mWidth, mHeight, mChannels;
    // Picture pixels per glass unit as a ratio: the side that meets the
    // glass's edge first decides.
    std::uint64_t mPicturePerGlass, mGlassPerPicture;
    std::vector<std::uint8_t> mPixels;

    friend struct PageImageDecoders;
};

}  // namespace zentary
