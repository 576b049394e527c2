#include "imaging/PictRecorder.h"

#include <algorithm>
#include <cstring>

#include "imaging/FileIo.h"
#include "imaging/ImageExport.h"

namespace zentary {

namespace {

constexpr std::uint16_t kOpClip = 0x0001;
constexpr std::uint16_t kOpVersion = 0x0011;
constexpr std::uint16_t kVersion2 = 0x02FF;
constexpr std::uint16_t kOpHeader = 0x0C00;
constexpr std::uint16_t kExtendedVersion2 = 0xFFFE;  // -2
constexpr std::uint16_t kOpPackBitsRect = 0x0098;
constexpr std::uint16_t kOpDirectBitsRect = 0x009A;
constexpr std::uint16_t kOpEndOfPicture = 0x00FF;
constexpr std::uint16_t kPixMapFlag = 0x8000;
constexpr std::uint16_t kPackTypeDefault = 0;
constexpr std::uint16_t kPackTypeComponents = 4;
constexpr std::uint16_t kPixelTypeChunky = 0;
constexpr std::uint16_t kPixelTypeRGBDirect = 16;
constexpr std::uint16_t kSrcCopy = 0;
constexpr std::size_t kBufferBytes = 256 * 1024;
// Rows shorter than this are stored unpacked; longer than this carry a
// two-byte packed length instead of one.
constexpr std::size_t kMinimumPackedRowBytes = 8;
constexpr std::size_t kLongCountRowBytes = 250;

// Readers disagree on when a packed row's length takes two bytes: the
// format's own description says above 250 row bytes, several decoders use
// 200, and some judge direct records by three bytes per pixel instead of
// rowBytes. We record so that every rule gives the same answer: 8-bit rows
// of 201 to 250 bytes are given 252 row bytes, and direct strips avoid the
// widths where the rules part (see kAmbiguousDirectWidths).
std::size_t recordedRowBytes(int depth, int width) {
    const auto w = static_cast<std::size_t>(width);
    if (depth == 32) return 4 * w;
    const std::size_t even = (w + 1) & ~std::size_t{1};
    return even > 200 && even <= kLongCountRowBytes ? kLongCountRowBytes + 2 : even;
}

// 4w above 200 while 3w is not: 51 to 66 pixels.
constexpr int kAmbiguousDirectWidthFirst = 51;
constexpr int kAmbiguousDirectWidthLast = 66;

bool ambiguousDirectWidth(int width) {
    return width >= kAmbiguousDirectWidthFirst && width <= kAmbiguousDirectWidthLast;
}

}  // namespace

PictRecorder::PictRecorder(ByteSink& sink) : mSink(sink), mBuffer(kBufferBytes) {}

int PictRecorder::maximumStripWidth(int depth) {
    return depth == 32 ? kMaximumPictureRowBytes / 4 : kMaximumPictureRowBytes & ~1;
}

bool PictRecorder::flush() {
    if (mBuffered > 0 && !mFailed) mFailed = !mSink.write(mBuffer.data(), mBuffered);
    mBuffered = 0;
    return !mFailed;
}

bool PictRecorder::put(const void* data, std::size_t length) {
    if (mFailed) return false;
    mWritten += length;
    if (mBuffered + length > mBuffer.size()) {
        if (!flush()) return false;
        if (length > mBuffer.size()) return !(mFailed = !mSink.write(data, length));
    }
    std::memcpy(mBuffer.data() + mBuffered, data, length);
    mBuffered += length;
    return true;
}

bool PictRecorder::put16(std::uint16_t value) {
    const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
    return put(bytes, 2);
}

bool PictRecorder::put32(std::uint32_t value) {
    return put16(static_cast<std::uint16_t>(value >> 16)) && put16(static_cast<std::uint16_t>(value));
}

bool PictRecorder::putRect(const Rect& rect) {
    return put16(static_cast<std::uint16_t>(rect.top)) && put16(static_cast<std::uint16_t>(rect.left)) &&
           put16(static_cast<std::uint16_t>(rect.bottom)) && put16(static_cast<std::uint16_t>(rect.right));
}

bool PictRecorder::open(const Rect& frame, Fixed hRes, Fixed vRes) {
    if (mOpen || frame.width() <= 0 || frame.height() <= 0) return false;
    mStart = mSink.position();
    mWritten = 0;
    // The frame is the source rectangle in pixels and the header carries the
    // scan resolution, as OpenCPicture recorded it for a source at that
    // resolution; readers scale by the header when they care.
    bool ok = put16(0) && putRect(frame) && put16(kOpVersion) && put16(kVersion2) && put16(kOpHeader) &&
              put16(kExtendedVersion2) && put16(0) && put32(static_cast<std::uint32_t>(hRes)) &&
              put32(static_cast<std::uint32_t>(vRes)) && putRect(frame) && put32(0);
    ok = ok && put16(kOpClip) && put16(10) && putRect(frame);
    mOpen = ok;
    return ok;
}

bool PictRecorder::putRow(const std::uint8_t* data, std::size_t length, std::size_t rowBytes) {
    if (rowBytes < kMinimumPackedRowBytes) return put(data, length);
    const std::size_t packed = packBits({data, length}, mPacked.data());
    const bool counted = rowBytes > kLongCountRowBytes ? put16(static_cast<std::uint16_t>(packed))
                                                       : put(std::array{static_cast<std::uint8_t>(packed)}.data(), 1);
    return counted && put(mPacked.data(), packed);
}

bool PictRecorder::copyBits(const OffscreenImage& image, const Rect& area) {
    const int depth = image.depth();
    const Rect& bounds = image.bounds();
    if (!mOpen || mFailed || area.width() <= 0 || area.height() <= 0 || area.left < bounds.left ||
        area.top < bounds.top || area.right > bounds.right || area.bottom > bounds.bottom ||
        area.width() > maximumStripWidth(depth))
        return false;
    const int width = area.width();
    const std::size_t rowBytes = recordedRowBytes(depth, width);
    const bool direct = depth == 32;

    bool ok = put16(direct ? kOpDirectBitsRect : kOpPackBitsRect);
    if (direct) ok = ok && put32(0x000000FF);  // baseAddr of a direct pixel map record
    ok = ok && put16(static_cast<std::uint16_t>(rowBytes | kPixMapFlag)) && putRect(area) && put16(0) &&
         put16(direct ? kPackTypeComponents : kPackTypeDefault) && put32(0) &&
         put32(static_cast<std::uint32_t>(image.hRes())) && put32(static_cast<std::uint32_t>(image.vRes())) &&
         put16(direct ? kPixelTypeRGBDirect : kPixelTypeChunky) && put16(static_cast<std::uint16_t>(depth)) &&
         put16(direct ? 3 : 1) && put16(8) && put32(0) && put32(0) && put32(0);
    if (!direct) {
        const auto table = image.colorTable();
        ok = ok && put32(0) && put16(0) && put16(static_cast<std::uint16_t>(table.size() - 1));
        for (std::size_t i = 0; ok && i < table.size(); ++i)
            ok = put16(static_cast<std::uint16_t>(i)) && put16(table[i].red) && put16(table[i].green) &&
                 put16(table[i].blue);
    }
    ok = ok && putRect(area) && putRect(area) && put16(kSrcCopy);
    if (!ok) return false;

    const std::uint64_t dataStart = mWritten;
    const int firstColumn = area.left - bounds.left;
    for (int y = area.top - bounds.top; ok && y < area.bottom - bounds.top; ++y) {
        const std::uint8_t* source = image.row(y) + static_cast<std::size_t>(firstColumn) * (depth / 8);
        if (!direct) {
            std::memcpy(mRow.data(), source, static_cast<std::size_t>(width));
            std::memset(mRow.data() + width, 0, rowBytes - static_cast<std::size_t>(width));
            ok = putRow(mRow.data(), rowBytes, rowBytes);
        } else if (rowBytes < kMinimumPackedRowBytes) {
            // One pixel: an unpacked row is the pixel as it is, x R G B.
            std::memcpy(mRow.data(), source, 4);
            mRow[0] = 0;
            ok = put(mRow.data(), 4);
        } else {
            // Component planes: all reds, then greens, then blues; alpha is
            // not recorded (three components).
            std::uint8_t* red = mRow.data();
            std::uint8_t* green = red + width;
            std::uint8_t* blue = green + width;
            for (int x = 0; x < width; ++x) {
                red[x] = source[4 * x + 1];
                green[x] = source[4 * x + 2];
                blue[x] = source[4 * x + 3];
            }
            ok = putRow(mRow.data(), 3 * static_cast<std::size_t>(width), rowBytes);
        }
    }
    // Opcodes start on even offsets.
    if (ok && ((mWritten - dataStart) & 1) != 0) ok = put(std::array<std::uint8_t, 1>{0}.data(), 1);
    return ok;
}

bool PictRecorder::recordImage(const OffscreenImage& image) {
    const Rect& bounds = image.bounds();
    const bool direct = image.depth() == 32;
    const int stripWidth = maximumStripWidth(image.depth());
    Rect strip = bounds;
    while (strip.left < bounds.right) {
        const int left = bounds.right - strip.left;
        int width = std::min(left, stripWidth);
        if (direct) {
            // Keep every strip, the last one included, out of the widths
            // that readers decode differently, and the last one wider than
            // two pixels when the image is not that narrow itself.
            if (left > stripWidth && left - stripWidth <= 2) width = left - 3;
            if (ambiguousDirectWidth(left - width) && left > width) width -= kAmbiguousDirectWidthLast;
            if (ambiguousDirectWidth(width)) width /= 2;
        }
        strip.right = static_cast<std::int16_t>(strip.left + width);
        if (!copyBits(image, strip)) return false;
        strip.left = strip.right;
    }
    return true;
}

bool PictRecorder::close() {
    if (!mOpen) return false;
    mOpen = false;
    if (!put16(kOpEndOfPicture) || !flush()) return false;
    // A version 2 picture keeps only the low 16 bits of its size; readers
    // go by the end opcode.
    const std::uint8_t size[2] = {static_cast<std::uint8_t>(mWritten >> 8), static_cast<std::uint8_t>(mWritten)};
    return mSink.writeAt(mStart, size, 2);
}

bool writePictFile(const OffscreenImage& image, int fd) {
    FdSink sink(fd);
    static constexpr std::array<std::uint8_t, 512> kFileHeader{};
    if (!sink.write(kFileHeader.data(), kFileHeader.size())) return false;
    PictRecorder recorder(sink);
    return recorder.open(image.bounds(), image.hRes(), image.vRes()) && recorder.recordImage(image) &&
           recorder.close();
}

bool recordPicture(const OffscreenImage& image, std::vector<std::uint8_t>& picture) {
    MemorySink sink(picture);
    PictRecorder recorder(sink);
    return recorder.open(image.bounds(), image.hRes(), image.vRes()) && recorder.recordImage(image) &&
           recorder.close();
}

bool exportPict(const OffscreenImage& image, const std::string& path) {
    OutputFile file(path);
    return file.valid() && writePictFile(image, file.fd()) && file.commit();
}

}  // namespace zentary
