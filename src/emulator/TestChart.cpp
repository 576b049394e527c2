#include "emulator/TestChart.h"

namespace zentary::chart {

namespace {
constexpr std::uint32_t kOutside = 6;
constexpr Rgb kWhite{255, 255, 255};
constexpr Rgb kLine{40, 40, 40};
constexpr Rgb sBars[8] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                          {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
}  // namespace

// Class = band * 2 + (on a horizontal grid line), or kOutside below the glass.
std::uint32_t rowClass(std::uint32_t y)
{
    if (y >= kGlassHeight) return kOutside;
    std::uint32_t band = y * 3 / kGlassHeight;
    return band * 2 + (y % kGridPitch < kGridLine ? 1 : 0);
}

Rgb colorInRow(std::uint32_t x, std::uint32_t cls)
{
    if (cls >= kOutside || x >= kGlassWidth) return kWhite;
    if ((cls & 1) || x % kGridPitch < kGridLine) return kLine;
    std::uint8_t ramp = std::uint8_t(x * 255 / (kGlassWidth - 1));
    switch (cls / 2) {
    case 0: return sBars[x * 8 / kGlassWidth];
    case 1: return {ramp, ramp, ramp};
    default: return {ramp, std::uint8_t(255 - ramp), std::uint8_t((x / 150) % 2 ? 200 : 50)};
    }
}

}  // namespace zentary::chart
