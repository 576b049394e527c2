// The test chart on the emulated scanner's glass. A pure function of the
// position, so a test can compute every pixel of any scan: colour bars, a
// gray ramp and a colour ramp in three bands from top to bottom, under a
// grid of dark lines every half inch.
//
// Positions are in 1/1200 inch from the glass's top-left corner; the glass is
// 8.5 x 11.7 inches. Outside the glass the chart is white. Pixel (px, py) of
// a scan at `dpi` whose area starts at (left, top) hundredths of an inch
// samples the chart at chartPosition(left, dpi, px), chartPosition(top, dpi, py).
#pragma once

#include <cstdint>

namespace zentary::chart {

inline constexpr std::uint32_t kUnitsPerInch = 1200;
inline constexpr std::uint32_t kGlassWidth = 10200;   // 8.5 in
inline constexpr std::uint32_t kGlassHeight = 14040;  // 11.7 in
inline constexpr std::uint32_t kGridPitch = 600;      // every half inch
inline constexpr std::uint32_t kGridLine = 24;        // 0.02 in wide
inline constexpr std::uint32_t kRowClasses = 7;

struct Rgb {
    std::uint8_t r, g, b;
    bool operator==(const Rgb&) const = default;
};

// Rows of one class are identical; the emulator builds one row per class.
std::uint32_t rowClass(std::uint32_t y);
Rgb colorInRow(std::uint32_t x, std::uint32_t rowClass);

inline Rgb color(std::uint32_t x, std::uint32_t y)
{
    return colorInRow(x, rowClass(y));
}
// Gray is the luma of the colour, rounded: white stays 255, black 0.
inline std::uint8_t grayOf(Rgb c)
{
    return std::uint8_t((77u * c.r + 150u * c.g + 29u * c.b + 128u) >> 8);
}
inline std::uint8_t gray(std::uint32_t x, std::uint32_t y)
{
    return grayOf(color(x, y));
}
// Scan coordinates to chart units. Negative area origins never occur (the
// scanner refuses them).
inline std::uint32_t chartPosition(std::uint32_t originHundredths, std::uint32_t dpi, std::uint32_t pixel)
{
    return originHundredths * (kUnitsPerInch / 100) + std::uint32_t(std::uint64_t(pixel) * kUnitsPerInch / dpi);
}

}  // namespace zentary::chart
