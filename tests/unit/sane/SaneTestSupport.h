// Shared by the SANE backend tests: a SANE configuration directory that
// points at the build tree, and the chart pixels a scan must deliver.
#pragma once

#include <sane/sane.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "emulator/TestChart.h"
#include "support/TestEnvironment.h"

namespace zentary::test {

inline std::filesystem::path saneDir()
{
    return buildDir() / "sane";
}

// zentary.conf (capabilities of the build tree) and a dll.conf listing us
// and SANE's own test backend.
inline void writeSaneConfig(const std::filesystem::path& dir, const std::string& extra = {})
{
    std::ofstream(dir / "zentary.conf") << "capabilities " << (bundlePath() / "Resources/Capabilities").string()
                                        << "\n"
                                        << extra;
    std::ofstream(dir / "dll.conf") << "zentary\ntest\n";
}

// A scan request in the units of the options: millimetres, which the
// tests choose as whole hundredths of an inch.
struct Area {
    double left, top, right, bottom;  // millimetres
};

inline std::uint32_t hundredths(double millimetres)
{
    return std::uint32_t(std::lround(millimetres / 0.254));
}

inline std::uint32_t pixelsFor(std::uint32_t hundredths, std::uint32_t dpi)
{
    return std::uint32_t(std::trunc(float(hundredths) / 100.0f * float(dpi)));
}

// Where in `frame` (rows of bytesPerLine, gray or RGB) the first pixel that
// differs from the chart is, or -1.
inline long long firstChartMismatch(const std::uint8_t* frame, std::uint32_t width, std::uint32_t rows, bool gray,
                                    const Area& area, std::uint32_t dpi)
{
    std::uint32_t left = hundredths(area.left), top = hundredths(area.top);
    std::uint32_t channels = gray ? 1 : 3;
    for (std::uint32_t y = 0; y < rows; ++y) {
        std::uint32_t rowClass = chart::rowClass(chart::chartPosition(top, dpi, y));
        const std::uint8_t* row = frame + std::uint64_t(y) * width * channels;
        for (std::uint32_t x = 0; x < width; ++x) {
            chart::Rgb c = chart::colorInRow(chart::chartPosition(left, dpi, x), rowClass);
            const std::uint8_t* p = row + std::uint64_t(x) * channels;
            bool same = gray ? p[0] == chart::grayOf(c) : (p[0] == c.r && p[1] == c.g && p[2] == c.b);
            if (!same) return (long long)y * width + x;
        }
    }
    return -1;
}

}  // namespace zentary::test
