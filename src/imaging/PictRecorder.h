// Records offscreen images into a QuickDraw picture (extended version 2),
// what the platform's OpenCPicture/CopyBits/ClosePicture produced: the
// picture header, a clip region, one bit-map record per copy and the end
// opcode. 32-bit images become DirectBitsRect records with each row packed
// per component (packType 4); 8-bit gray images become PackBitsRect records
// carrying the gray colour table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "imaging/ByteSink.h"
#include "imaging/OffscreenImage.h"
#include "imaging/PackBits.h"

namespace zentary {

// Longest row, in bytes, that one bit-map record of a picture may carry: the
// top bits of a pixel map's rowBytes are flags.
inline constexpr int kMaximumPictureRowBytes = 0x3FFF;

class PictRecorder {
public:
    explicit PictRecorder(ByteSink& sink);

    // Starts the picture: frame and source rectangle, resolution of the
    // image it will hold. False when the sink fails or the frame is empty.
    bool open(const Rect& frame, Fixed hRes, Fixed vRes);

    // Records the part `area` of `image` (image coordinates) at the same
    // place in the picture. The area must fit the image and be at most
    // maximumStripWidth(depth) pixels wide, so that no recorded row passes
    // kMaximumPictureRowBytes. Prefer recordImage, which also keeps colour
    // strips out of the widths that PICT readers decode differently.
    bool copyBits(const OffscreenImage& image, const Rect& area);

    // Records the whole image: one record when its rows fit the limit,
    // else vertical strips of maximumStripWidth pixels, the last one narrower
    // and ending exactly at the image's right edge.
    bool recordImage(const OffscreenImage& image);

    // Writes the end opcode and the picture's size word.
    bool close();

    // Widest strip one record may hold at this depth. Recorded rows carry no
    // slack, and 8-bit rows are padded to an even length.
    static int maximumStripWidth(int depth);

private:
    bool put(const void* data, std::size_t length);
    bool put16(std::uint16_t value);
    bool put32(std::uint32_t value);
    bool putRect(const Rect& rect);
    bool flush();
    // One row of `length` bytes, packed or not as the record's rowBytes says.
    bool putRow(const std::uint8_t* data, std::size_t length, std::size_t rowBytes);

    ByteSink& mSink;
    std::uint64_t mStart = 0;
    bool mOpen = false;
    bool mFailed = false;
    // Output is gathered here so that the sink sees large writes only.
    std::vector<std::uint8_t> mBuffer;
    std::size_t mBuffered = 0;
    std::uint64_t mWritten = 0;  // bytes of the picture, buffered or not
    // One row before and after packing; sized for the longest legal row so
    // that recording needs no allocation per row or per record.
    std::array<std::uint8_t, kMaximumPictureRowBytes + 1> mRow{};
    std::array<std::uint8_t, packBitsBound(kMaximumPictureRowBytes + 1)> mPacked{};
};

// A PICT file: 512 zero bytes, then the picture of the whole image. The
// picture's frame is the image in pixels; its header carries the resolution.
bool writePictFile(const OffscreenImage& image, int fd);
// The picture alone, as a native transfer hands it over. A transfer that
// must not hold the picture twice records into its own ByteSink instead.
bool recordPicture(const OffscreenImage& image, std::vector<std::uint8_t>& picture);

}  // namespace zentary
