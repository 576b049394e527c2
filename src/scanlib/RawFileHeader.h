// The raw scan file: a 32-byte header of eight host-order 32-bit words, then
// the rows top-down, each bytesPerPixel x pixelsPerRow bytes, no padding.
// Written by the scan thread, read back by the image transfer.
#pragma once

#include <cstdint>

namespace zentary {

inline constexpr std::uint32_t kRawFileSignature = 0x72617746;  // 'rawF'
inline constexpr std::uint32_t kRawFileHeaderLength = 32;
inline constexpr int kColorTypeColor = 0;
inline constexpr int kColorTypeGray = 1;

struct RawFileHeader {
    std::uint32_t signature;      // kRawFileSignature
    std::uint32_t headerLength;   // 32; readers do not rely on it
    std::uint32_t colorType;      // kColorTypeColor or kColorTypeGray
    std::uint32_t bytesPerPixel;  // 4 for colour (x R G B), 1 for gray
    std::uint32_t bitsPerSample;  // 8 (readers also accept 1)
    std::uint32_t resolution;     // dots per inch
    std::uint32_t pixelsPerRow;
    std::uint32_t rows;           // expected rows until the image end, then rows written
};
static_assert(sizeof(RawFileHeader) == kRawFileHeaderLength);

}  // namespace zentary
