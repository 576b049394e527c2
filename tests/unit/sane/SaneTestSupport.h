// Shared by the SANE backend tests: a SANE configuration directory that
// points at the build tree, and the chart pixels a scan must deliver.
#pragma once

#include <sane/sane.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "integration/transfers/ChartImages.h"
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

// Whether `frame` (rows of gray or RGB pixels) is the chart as a scan of
// `area` at `dpi` sees it.
inline ::testing::AssertionResult isChart(const std::uint8_t* frame, std::uint32_t width, std::uint32_t rows,
                                          bool gray, const Area& area, std::uint32_t dpi)
{
    const std::uint32_t channels = gray ? 1 : 3;
    Picture picture{width, rows, channels, 0, 0, {frame, frame + std::size_t(width) * rows * channels}};
    return samePixels(picture, chartPicture({hundredths(area.left), hundredths(area.top)}, dpi, width, rows, channels));
}

}  // namespace zentary::test
