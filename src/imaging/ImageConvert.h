// Conversions between files and offscreen images, used by the transfers:
// the raw scan file in, TIFF, PICT or JPEG files out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "imaging/OffscreenImage.h"

namespace zentary {

constexpr std::uint32_t fourCharCode(const char (&code)[5]) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

inline constexpr std::uint32_t kFileTypeTIFF = fourCharCode("TIFF");
inline constexpr std::uint32_t kFileTypePICT = fourCharCode("PICT");
inline constexpr std::uint32_t kFileTypeJPEG = fourCharCode("JPEG");

class ImageConvert {
public:
    ImageConvert() = delete;

    // See RawFileReader.h.
    static std::unique_ptr<OffscreenImage> newGWorldFromRawFile(const std::string& path);
    static bool isScanRawFile(const std::string& path);

    // Writes `image` to `toFile` as kFileTypeTIFF, kFileTypePICT or
    // kFileTypeJPEG (default settings). False for a null image or path, an
    // unknown type, or any failure; the file at `toFile` is then untouched.
    static bool saveGWorld(const OffscreenImage* image, const char* toFile, std::uint32_t ofType);

    // A new image shaped like the example (depth, bounds, resolution), or null.
    static std::unique_ptr<OffscreenImage> createGWorldByExample(const OffscreenImage* example);
};

}  // namespace zentary
