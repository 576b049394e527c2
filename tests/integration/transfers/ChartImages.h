// What a client gets back from a transfer, decoded by tools that know
// nothing of this data source (libtiff, libjpeg, ImageMagick), and the pixels
// the emulated scanner's chart says it must hold.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace zentary::test {

// Interleaved 8-bit samples, 1 (gray) or 3 (RGB) per pixel, rows top down.
struct Picture {
    std::uint32_t width = 0, height = 0, channels = 0;
    double xDpi = 0, yDpi = 0;  // 0 when the format does not say
    std::vector<std::uint8_t> pixels;
};

// A scan area's origin in hundredths of an inch, as the scanner takes it.
struct Origin {
    std::uint32_t left = 0, top = 0;
};

// Pixels along one side of a scan of `hundredths` at `dpi`, as the scanner
// counts them.
std::uint32_t scanPixels(std::uint32_t hundredths, std::uint32_t dpi);

// The chart as a scan of width x height at `dpi` from `origin` sees it.
Picture chartPicture(Origin origin, std::uint32_t dpi, std::uint32_t width, std::uint32_t height,
                     std::uint32_t channels);

std::optional<Picture> decodeTiff(const std::filesystem::path& file);  // its first page
std::vector<Picture> decodeTiffPages(const std::filesystem::path& file);  // none when one is unreadable
std::optional<Picture> decodeJpeg(const std::filesystem::path& file);
// Through ImageMagick into TIFF; the resolution comes from the picture's own
// header. `withFileHeader` says whether the 512 bytes of a PICT file precede it.
std::optional<Picture> decodePict(const std::filesystem::path& file, bool withFileHeader);

void writeBytes(const std::filesystem::path& file, const void* data, std::size_t length);
std::vector<std::uint8_t> readAll(const std::filesystem::path& file);
// The big-endian 32-bit number at `at` (PICT and PNG headers).
std::uint32_t big32(const std::vector<std::uint8_t>& bytes, std::size_t at);

::testing::AssertionResult samePixels(const Picture& actual, const Picture& expected);
::testing::AssertionResult closePixels(const Picture& actual, const Picture& expected, double minimumPsnr);

}  // namespace zentary::test
