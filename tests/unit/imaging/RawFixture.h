// Raw scan files made from synthetic patterns, in a scratch directory.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "scanlib/RawFileHeader.h"
#include "support/TestEnvironment.h"

namespace zentary::test {

// Sample c (0 red, 1 green, 2 blue; gray uses 0) of pixel (x, y): runs of
// four equal bytes and sharp steps, to exercise both kinds of PackBits packet,
// and every 160 columns a stretch where no byte equals its neighbour, as long
// as each size of literal the packer copies differently (up to past 128).
inline std::uint8_t sample(int x, int y, int c) {
    static constexpr int kLiteral[] = {3, 6, 12, 40, 150};
    const int step = x % 160 < kLiteral[x / 160 % 5] ? x * 5 : (x / 4) * 16;
    return static_cast<std::uint8_t>(step + y * 8 + c * 40);
}

struct RawShape {
    int width;
    int height;
    bool gray;
    std::uint32_t dpi = 300;
};

inline RawFileHeader rawHeader(const RawShape& shape) {
    return {kRawFileSignature, kRawFileHeaderLength, shape.gray ? 1u : 0u, shape.gray ? 1u : 4u, 8u,
            shape.dpi, static_cast<std::uint32_t>(shape.width), static_cast<std::uint32_t>(shape.height)};
}

// The stored rows of the pattern: gray bytes, or x R G B with x = 0x5A so
// that a reader that keeps it instead of writing opaque alpha shows.
inline std::vector<std::uint8_t> rawPixels(const RawShape& shape) {
    std::vector<std::uint8_t> bytes;
    for (int y = 0; y < shape.height; ++y)
        for (int x = 0; x < shape.width; ++x) {
            if (shape.gray) {
                bytes.push_back(sample(x, y, 0));
                continue;
            }
            bytes.push_back(0x5A);
            for (int c = 0; c < 3; ++c) bytes.push_back(sample(x, y, c));
        }
    return bytes;
}

inline void writeRawFile(const std::string& path, const RawFileHeader& header, const std::vector<std::uint8_t>& pixels,
                         std::size_t headerBytes = sizeof(RawFileHeader)) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(&header), static_cast<std::streamsize>(headerBytes));
    out.write(reinterpret_cast<const char*>(pixels.data()), static_cast<std::streamsize>(pixels.size()));
}

inline std::string writeRawFile(const ScratchDir& dir, const RawShape& shape) {
    const std::string path = dir.file("scan.raw");
    writeRawFile(path, rawHeader(shape), rawPixels(shape));
    return path;
}

}  // namespace zentary::test
