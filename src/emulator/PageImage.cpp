#include "emulator/PageImage.h"

#include <png.h>
#include <stdio.h>
#include <tiffio.h>
// libjpeg's header needs the stdio types first.
#include <jpeglib.h>

#include <algorithm>
#include <csetjmp>
#include <cstring>
#include <fstream>
#include <limits>

namespace zentary {

namespace {

// A page picture file is a few megabytes; anything far larger is not one.
constexpr std::uint64_t kLargestFile = 512u << 20;

bool startsWith(std::span<const std::uint8_t> bytes, const char* magic, std::size_t length)
{
    return bytes.size() >= length && std::memcmp(bytes.data(), magic, length) == 0;
}

// libtiff reads the file's bytes from memory, never past their end.
struct TiffMemory {
    std::span<const std::uint8_t> bytes;
    toff_t position = 0;
};

tsize_t tiffRead(thandle_t handle, tdata_t data, tsize_t size)
{
    auto* in = static_cast<TiffMemory*>(handle);
    if (size <= 0 || in->position >= in->bytes.size()) return 0;
    std::size_t count = std::min<std::size_t>(std::size_t(size), in->bytes.size() - in->position);
    std::memcpy(data, in->bytes.data() + in->position, count);
    in->position += count;
    return tsize_t(count);
}
tsize_t tiffWrite(thandle_t, tdata_t, tsize_t) { return -1; }
toff_t tiffSeek(thandle_t handle, toff_t offset, int whence)
{
    auto* in = static_cast<TiffMemory*>(handle);
    toff_t base = whence == SEEK_CUR ? in->position : whence == SEEK_END ? in->bytes.size() : 0;
    in->position = base + offset;
    return in->position;
}
int tiffClose(thandle_t) { return 0; }
toff_t tiffSize(thandle_t handle) { return static_cast<TiffMemory*>(handle)->bytes.size(); }
int tiffMap(thandle_t, tdata_t*, toff_t*) { return 0; }
void tiffUnmap(thandle_t, tdata_t, toff_t) {}
// The emulator has no one to tell but the caller, who gets one line.
int tiffQuiet(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct JpegFailure {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

void jpegFail(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<JpegFailure*>(info->err)->jump, 1);
}
// A warning is corrupt or missing data, which libjpeg would paint over in
// gray: refuse the picture instead of scanning half of it.
void jpegQuiet(j_common_ptr info, int level)
{
    if (level < 0) jpegFail(info);
}

}  // namespace

struct PageImageDecoders {
    static std::shared_ptr<PageImage> make(std::uint32_t width, std::uint32_t height, std::uint32_t channels,
                                           std::uint64_t maximumPixels, std::string* error)
    {
        if (width == 0 || height == 0 || std::uint64_t(width) * height > maximumPixels) {
            *error = "the picture is empty or larger than the glass at 1200 dpi";
            return nullptr;
        }
        return std::shared_ptr<PageImage>(new PageImage(width, height, channels));
    }

    static std::shared_ptr<const PageImage> png(std::span<const std::uint8_t> bytes, std::uint64_t maximumPixels,
                                                std::string* error)
    {
        png_image image{};
        image.version = PNG_IMAGE_VERSION;
        if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) {
            *error = std::string("not a readable PNG: ") + image.message;
            return nullptr;
        }
        std::uint32_t channels = image.format & PNG_FORMAT_FLAG_COLOR ? 3 : 1;
        image.format = channels == 3 ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
        auto page = make(image.width, image.height, channels, maximumPixels, error);
        if (!page) {
            png_image_free(&image);
            return nullptr;
        }
        // Transparent parts lie on white paper.
        png_color white{255, 255, 255};
        if (!png_image_finish_read(&image, &white, page->mPixels.data(), 0, nullptr)) {
            *error = std::string("broken PNG: ") + image.message;
            return nullptr;
        }
        return page;
    }

    // libjpeg leaves by longjmp on any error: each step lives in a frame of
    // its own with nothing to destroy, and reports whether it got through.
    static bool jpegHeader(jpeg_decompress_struct& info, JpegFailure& failure, std::span<const std::uint8_t> bytes)
    {
        if (setjmp(failure.jump)) return false;
        jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
        jpeg_read_header(&info, TRUE);
        return true;
    }
    static bool jpegPixels(jpeg_decompress_struct& info, JpegFailure& failure, std::uint8_t* pixels,
                           std::size_t stride)
    {
        if (setjmp(failure.jump)) return false;
        jpeg_start_decompress(&info);
        while (info.output_scanline < info.output_height) {
            JSAMPROW row = pixels + stride * info.output_scanline;
            jpeg_read_scanlines(&info, &row, 1);
        }
        jpeg_finish_decompress(&info);
        return true;
    }

    static std::shared_ptr<const PageImage> jpeg(std::span<const std::uint8_t> bytes, std::uint64_t maximumPixels,
                                                 std::string* error)
    {
        jpeg_decompress_struct info{};
        JpegFailure failure{};
        info.err = jpeg_std_error(&failure.manager);
        failure.manager.error_exit = jpegFail;
        failure.manager.emit_message = jpegQuiet;
        jpeg_create_decompress(&info);
        std::unique_ptr<jpeg_decompress_struct, void (*)(jpeg_decompress_struct*)> owner(
            &info, [](jpeg_decompress_struct* i) { jpeg_destroy_decompress(i); });
        if (!jpegHeader(info, failure, bytes)) {
            *error = "broken JPEG";
            return nullptr;
        }
        if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK) {
            *error = "CMYK JPEG pictures are not supported";
            return nullptr;
        }
        std::uint32_t channels = info.num_components == 1 ? 1 : 3;
        info.out_color_space = channels == 1 ? JCS_GRAYSCALE : JCS_RGB;
        auto page = make(info.image_width, info.image_height, channels, maximumPixels, error);
        if (!page) return nullptr;
        if (!jpegPixels(info, failure, page->mPixels.data(), std::size_t(info.image_width) * channels)) {
            *error = "broken JPEG";
            return nullptr;
        }
        return page;
    }

    static std::shared_ptr<const PageImage> tiff(std::span<const std::uint8_t> bytes, std::uint64_t maximumPixels,
                                                 std::string* error)
    {
        TiffMemory in{bytes};
        std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions*)> options(TIFFOpenOptionsAlloc(),
                                                                             TIFFOpenOptionsFree);
        TIFFOpenOptionsSetErrorHandlerExtR(options.get(), tiffQuiet, nullptr);
        TIFFOpenOptionsSetWarningHandlerExtR(options.get(), tiffQuiet, nullptr);
        std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFClientOpenExt("page", "rm", &in, tiffRead, tiffWrite, tiffSeek,
                                                                      tiffClose, tiffSize, tiffMap, tiffUnmap,
                                                                      options.get()),
                                                    TIFFClose);
        char message[1024] = "";
        if (!tiff || !TIFFRGBAImageOK(tiff.get(), message)) {
            *error = "not a readable TIFF";
            return nullptr;
        }
        std::uint32_t width = 0, height = 0;
        std::uint16_t photometric = PHOTOMETRIC_RGB;
        TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
        TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
        TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_PHOTOMETRIC, &photometric);
        std::uint32_t channels = photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE ? 1 : 3;
        auto page = make(width, height, channels, maximumPixels, error);
        if (!page) return nullptr;
        TIFFRGBAImage reader{};
        if (!TIFFRGBAImageBegin(&reader, tiff.get(), 1, message)) {  // stop at a broken strip
            *error = "not a readable TIFF";
            return nullptr;
        }
        // libtiff hands out 32-bit pixels; a band of rows at a time keeps
        // that copy small whatever the picture's size.
        reader.req_orientation = ORIENTATION_TOPLEFT;
        // libtiff decodes a whole strip for every call that touches it: a
        // band of whole strips decodes each strip once, as long as the band
        // stays small; a tall strip is then read in bands of 64 rows.
        constexpr std::uint32_t kBandRows = 64;
        constexpr std::uint64_t kLargestBand = 64u << 20;
        std::uint32_t rowsPerStrip = 0, bandRows = kBandRows;
        if (!TIFFIsTiled(tiff.get()) && TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_ROWSPERSTRIP, &rowsPerStrip) == 1 &&
            rowsPerStrip > kBandRows && std::uint64_t(std::min(rowsPerStrip, height)) * width * 4 <= kLargestBand)
            bandRows = std::min(rowsPerStrip, height);
        std::vector<std::uint32_t> band(std::size_t(width) * bandRows);
        bool ok = true;
        for (std::uint32_t y = 0; y < height && ok; y += bandRows) {
            std::uint32_t rows = std::min(bandRows, height - y);
            reader.row_offset = int(y);
            ok = TIFFRGBAImageGet(&reader, band.data(), width, rows) == 1;
            for (std::uint32_t r = 0; r < rows && ok; ++r)
                for (std::uint32_t x = 0; x < width; ++x) {
                    std::uint32_t pixel = band[std::size_t(r) * width + x];
                    std::uint8_t* out = page->mPixels.data() + (std::size_t(y + r) * width + x) * channels;
                    // On white paper, as for a PNG with alpha.
                    auto over = [alpha = TIFFGetA(pixel)](std::uint32_t value) {
                        return std::uint8_t(value + (255 - alpha));
                    };
                    out[0] = over(TIFFGetR(pixel));
                    if (channels == 3) {
                        out[1] = over(TIFFGetG(pixel));
                        out[2] = over(TIFFGetB(pixel));
                    }
                }
        }
        TIFFRGBAImageEnd(&reader);
        if (!ok) {
            *error = "broken TIFF";
            return nullptr;
        }
        return page;
    }
};

PageImage::PageImage(std::uint32_t width, std::uint32_t height, std::uint32_t channels)
    : mWidth(width), mHeight(height), mChannels(channels), mPixels(std::size_t(width) * height * channels)
{
    // Width-bound when the picture is relatively wider than the glass.
    if (std::uint64_t(width) * chart::kGlassHeight >= std::uint64_t(height) * chart::kGlassWidth) {
        mPicturePerGlass = width;
        mGlassPerPicture = chart::kGlassWidth;
    } else {
        mPicturePerGlass = height;
        mGlassPerPicture = chart::kGlassHeight;
    }
}

std::shared_ptr<const PageImage> PageImage::decode(std::span<const std::uint8_t> bytes, std::string* error,
                                                   std::uint64_t maximumPixels)
{
    if (startsWith(bytes, "\x89PNG\r\n\x1a\n", 8)) return PageImageDecoders::png(bytes, maximumPixels, error);
    if (startsWith(bytes, "\xFF\xD8\xFF", 3)) return PageImageDecoders::jpeg(bytes, maximumPixels, error);
    if (startsWith(bytes, "II*\0", 4) || startsWith(bytes, "MM\0*", 4))
        return PageImageDecoders::tiff(bytes, maximumPixels, error);
    *error = "not a PNG, JPEG or TIFF picture";
    return nullptr;
}

std::shared_ptr<const PageImage> PageImage::load(const std::string& path, std::string* error)
{
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) {
        *error = "cannot open " + path;
        return nullptr;
    }
    std::streamoff size = file.tellg();
    if (size <= 0 || std::uint64_t(size) > kLargestFile) {
        *error = path + " is empty or too large for a page picture";
        return nullptr;
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    file.seekg(0);
    if (!file.read(reinterpret_cast<char*>(bytes.data()), size)) {
        *error = "cannot read " + path;
        return nullptr;
    }
    auto page = decode(bytes, error);
    if (!page) *error = path + ": " + *error;
    return page;
}

chart::Rgb PageImage::color(std::uint32_t x, std::uint32_t y) const
{
    if (x >= mWidth || y >= mHeight) return {255, 255, 255};
    const std::uint8_t* p = mPixels.data() + (std::size_t(y) * mWidth + x) * mChannels;
    return mChannels == 1 ? chart::Rgb{p[0], p[0], p[0]} : chart::Rgb{p[0], p[1], p[2]};
}

std::uint8_t PageImage::gray(std::uint32_t x, std::uint32_t y) const
{
    if (x >= mWidth || y >= mHeight) return 255;
    const std::uint8_t* p = mPixels.data() + (std::size_t(y) * mWidth + x) * mChannels;
    return mChannels == 1 ? p[0] : chart::grayOf({p[0], p[1], p[2]});
}

}  // namespace zentary
