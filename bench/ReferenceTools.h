// What the benchmarks measure our exporters against: libtiff alone writing
// the same pixels in the same strips, and the command-line tools users know.
#pragma once

#include <benchmark/benchmark.h>
#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace zentary::bench {

// The strip size our TIFF exporter writes, so libtiff alone does the same work.
inline constexpr std::size_t kTiffStripBytes = 256 * 1024;

// An uncompressed chunky RGB TIFF of `rgb` rows (3 bytes a pixel, no padding).
inline bool writeTiffWithLibtiff(const std::string& path, const std::uint8_t* rgb, std::uint32_t width,
                                 std::uint32_t height, float dpi)
{
    const std::size_t rowBytes = std::size_t(width) * 3;
    const auto rowsPerStrip = std::uint32_t(std::max<std::size_t>(1, kTiffStripBytes / rowBytes));
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    if (!tiff) return false;
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
    TIFFSetField(tiff, TIFFTAG_XRESOLUTION, dpi);
    TIFFSetField(tiff, TIFFTAG_YRESOLUTION, dpi);
    TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    bool ok = true;
    for (std::uint32_t y = 0, strip = 0; ok && y < height; y += rowsPerStrip, ++strip) {
        const std::uint32_t rows = std::min(rowsPerStrip, height - y);
        ok = TIFFWriteEncodedStrip(tiff, strip, const_cast<std::uint8_t*>(rgb + y * rowBytes),
                                   tmsize_t(rows * rowBytes)) >= 0;
    }
    TIFFClose(tiff);
    return ok;
}

// Runs a shell command once per iteration; a failure ends the benchmark.
inline void runCommand(benchmark::State& state, const std::string& command)
{
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) return state.SkipWithError(("failed: " + command).c_str());
}

}  // namespace zentary::bench
