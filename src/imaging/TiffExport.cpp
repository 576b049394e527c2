#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <tiffio.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define ZENTARY_HAVE_SSSE3_PATH 1
#endif

#include "imaging/FileIo.h"
#include "imaging/ImageExport.h"

namespace zentary {

namespace {

constexpr std::size_t kStripBytes = 256 * 1024;

// libtiff seeks back to patch its header, so its stream keeps a position
// over the sink and turns writes below the end into overwrites.
// Offsets inside a TIFF count from its first byte, wherever the sink is.
struct TiffStream {
    ByteSink* sink;
    std::uint64_t base = 0;
    std::uint64_t position = 0;
    std::uint64_t end() const { return sink->position() - base; }
};

tmsize_t tiffRead(thandle_t, void*, tmsize_t) {
    return 0;  // written only; libtiff never needs to read back a new file
}

tmsize_t tiffWrite(thandle_t handle, void* data, tmsize_t size) {
    auto* stream = static_cast<TiffStream*>(handle);
    if (size < 0) return -1;
    auto* bytes = static_cast<const std::uint8_t*>(data);
    auto left = static_cast<std::size_t>(size);
    const std::uint64_t end = stream->end();
    if (stream->position < end) {
        const auto overlap = static_cast<std::size_t>(std::min<std::uint64_t>(left, end - stream->position));
        if (!stream->sink->writeAt(stream->base + stream->position, bytes, overlap)) return -1;
        bytes += overlap;
        left -= overlap;
        stream->position += overlap;
    }
    static constexpr std::uint8_t kZeros[512] = {};
    while (left > 0 && stream->position > stream->end()) {
        const auto gap = std::min<std::uint64_t>(sizeof kZeros, stream->position - stream->end());
        if (!stream->sink->write(kZeros, static_cast<std::size_t>(gap))) return -1;
    }
    if (left > 0 && !stream->sink->write(bytes, left)) return -1;
    stream->position += left;
    return size;
}

toff_t tiffSeek(thandle_t handle, toff_t offset, int whence) {
    auto* stream = static_cast<TiffStream*>(handle);
    switch (whence) {
    case SEEK_SET: stream->position = offset; break;
    case SEEK_CUR: stream->position += offset; break;
    case SEEK_END: stream->position = stream->end() + offset; break;
    default: return static_cast<toff_t>(-1);
    }
    return stream->position;
}

int tiffClose(thandle_t) {
    return 0;  // the sink's owner closes it
}

toff_t tiffSize(thandle_t handle) {
    return static_cast<TiffStream*>(handle)->end();
}

int tiffMap(thandle_t, void**, toff_t*) {
    return 0;
}

void tiffUnmap(thandle_t, void*, toff_t) {}

// We run inside someone else's process: libtiff's messages go nowhere
// rather than to the client's stderr, and failures show as return values.
int tiffQuiet(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

struct TiffCloser {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
struct OptionsDeleter {
    void operator()(TIFFOpenOptions* options) const { TIFFOpenOptionsFree(options); }
};

// Four x R G B pixels to twelve R G B bytes with word arithmetic: each pixel
// shifted past its alpha byte, the words stitched together.
void packRgbPortable(const std::uint8_t* source, std::uint8_t* target, int width) {
    int x = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (; x + 4 <= width; x += 4) {
            std::uint32_t p[4];
            std::memcpy(p, source + 4 * x, 16);
            const std::uint32_t words[3] = {
                (p[0] >> 8) | ((p[1] & 0x0000FF00u) << 16),
                (p[1] >> 16) | ((p[2] & 0x00FFFF00u) << 8),
                (p[2] >> 24) | (p[3] & 0xFFFFFF00u),
            };
            std::memcpy(target + 3 * x, words, 12);
        }
    }
    for (; x < width; ++x) {
        target[3 * x] = source[4 * x + 1];
        target[3 * x + 1] = source[4 * x + 2];
        target[3 * x + 2] = source[4 * x + 3];
    }
}

#ifdef ZENTARY_HAVE_SSSE3_PATH
// Dropping the alpha byte is most of a colour TIFF export; one byte shuffle
// does it for four pixels, which keeps the export close to what libtiff
// alone needs to write the same bytes. Chosen at run time, so the library
// still loads on processors without SSSE3.
__attribute__((target("ssse3"))) void packRgbSsse3(const std::uint8_t* source, std::uint8_t* target, int width) {
    const __m128i shuffle = _mm_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1);
    int x = 0;
    // Each store writes 16 bytes of which 12 count; the next store covers
    // the other 4, and the last pixels go through the portable loop.
    for (; x + 6 <= width; x += 4) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + 4 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(target + 3 * x), _mm_shuffle_epi8(pixels, shuffle));
    }
    packRgbPortable(source + 4 * x, target + 3 * x, width - x);
}
#endif

using PackRgb = void (*)(const std::uint8_t*, std::uint8_t*, int);

PackRgb choosePackRgb() {
#ifdef ZENTARY_HAVE_SSSE3_PATH
    if (__builtin_cpu_supports("ssse3")) return packRgbSsse3;
#endif
    return packRgbPortable;
}

}  // namespace

void packRgb(const std::uint8_t* source, std::uint8_t* target, int width) {
    static const PackRgb pack = choosePackRgb();
    pack(source, target, width);
}

bool writeTiff(const OffscreenImage& image, ByteSink& sink) {
    const bool gray = image.depth() == 8;
    const int width = image.width();
    const int height = image.height();
    const std::size_t samples = gray ? 1 : 3;
    const std::size_t rowLength = samples * static_cast<std::size_t>(width);
    const auto rowsPerStrip = static_cast<int>(std::clamp<std::size_t>(kStripBytes / rowLength, 1, height));
    // Gray rows already are TIFF rows; when they also lie back to back the
    // strips go straight from the image.
    const bool direct = gray && image.rowBytes() == rowLength;
    static const PackRgb packRgb = choosePackRgb();
    std::unique_ptr<std::uint8_t[]> strip;
    if (!direct) {
        strip.reset(new (std::nothrow) std::uint8_t[rowLength * static_cast<std::size_t>(rowsPerStrip)]);
        if (!strip) return false;
    }

    std::unique_ptr<TIFFOpenOptions, OptionsDeleter> options(TIFFOpenOptionsAlloc());
    if (!options) return false;
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), tiffQuiet, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), tiffQuiet, nullptr);
    TiffStream stream{&sink, sink.position(), 0};
    std::unique_ptr<TIFF, TiffCloser> tiff(TIFFClientOpenExt("image", "w", &stream, tiffRead, tiffWrite, tiffSeek,
                                                             tiffClose, tiffSize, tiffMap, tiffUnmap, options.get()));
    if (!tiff) return false;
    TIFF* t = tiff.get();
    bool ok = TIFFSetField(t, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(width)) &&
              TIFFSetField(t, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(height)) &&
              TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8) &&
              TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, static_cast<int>(samples)) &&
              TIFFSetField(t, TIFFTAG_PHOTOMETRIC, gray ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB) &&
              TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
              TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) &&
              TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, static_cast<std::uint32_t>(rowsPerStrip)) &&
              TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH) &&
              TIFFSetField(t, TIFFTAG_XRESOLUTION, static_cast<float>(fix2Double(image.hRes()))) &&
              TIFFSetField(t, TIFFTAG_YRESOLUTION, static_cast<float>(fix2Double(image.vRes())));

    for (int y = 0; ok && y < height; y += rowsPerStrip) {
        const int rows = std::min(rowsPerStrip, height - y);
        void* data;
        if (direct) {
            // libtiff only reads uncompressed 8-bit strips; its API is not const.
            data = const_cast<std::uint8_t*>(image.row(y));
        } else {
            for (int r = 0; r < rows; ++r) {
                std::uint8_t* target = strip.get() + rowLength * static_cast<std::size_t>(r);
                if (gray)
                    std::memcpy(target, image.row(y + r), rowLength);
                else
                    packRgb(image.row(y + r), target, width);
            }
            data = strip.get();
        }
        const auto bytes = static_cast<tmsize_t>(rowLength * static_cast<std::size_t>(rows));
        ok = TIFFWriteEncodedStrip(t, static_cast<std::uint32_t>(y / rowsPerStrip), data, bytes) == bytes;
    }
    ok = ok && TIFFWriteDirectory(t);
    tiff.reset();
    return ok;
}

bool exportTiff(const OffscreenImage& image, const std::string& path) {
    OutputFile file(path);
    if (!file.valid()) return false;
    FdSink sink(file.fd());
    return writeTiff(image, sink) && file.commit();
}

}  // namespace zentary
