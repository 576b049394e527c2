// The image file exporters: TIFF through libtiff, JPEG through libjpeg-turbo,
// PICT through our own recorder. Each streams the image's rows to its sink;
// none copies the whole image.
#pragma once

#include <cstdint>
#include <string>

#include "imaging/ByteSink.h"
#include "imaging/OffscreenImage.h"

namespace zentary {

// The exporters never set a quality on the original platform, so its
// exporter's default applied; 85 keeps scanned text crisp at a third of the
// size of the best quality.
inline constexpr int kDefaultJpegQuality = 85;

// One row of `width` 32-bit pixels (x R G B) as 24-bit R G B: what every
// consumer of colour rows wants. Uses the processor's byte shuffle when it
// has one.
void packRgb(const std::uint8_t* source, std::uint8_t* target, int width);

// Uncompressed, strips of about 256 KiB, resolution in dots per inch. Gray
// images are MinIsBlack, colour images RGB (the alpha byte is dropped).
bool writeTiff(const OffscreenImage& image, ByteSink& sink);
// Baseline JFIF with the resolution as its density in dots per inch.
bool writeJpeg(const OffscreenImage& image, ByteSink& sink, int quality = kDefaultJpegQuality);

// The same written to a file for the user: under a temporary name first,
// renamed to `path` only when complete.
bool exportTiff(const OffscreenImage& image, const std::string& path);
bool exportJpeg(const OffscreenImage& image, const std::string& path, int quality = kDefaultJpegQuality);
bool exportPict(const OffscreenImage& image, const std::string& path);

}  // namespace zentary
