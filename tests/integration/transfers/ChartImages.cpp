#include "ChartImages.h"

#include <csetjmp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include <jpeglib.h>
#include <tiffio.h>

#include "emulator/TestChart.h"

namespace zentary::test {

std::uint32_t scanPixels(std::uint32_t hundredths, std::uint32_t dpi)
{
    return std::uint32_t(std::trunc(float(hundredths) / 100.0f * float(dpi)));
}

Picture chartPicture(Origin origin, std::uint32_t dpi, std::uint32_t width, std::uint32_t height,
                     std::uint32_t channels)
{
    Picture picture{width, height, channels, double(dpi), double(dpi), {}};
    picture.pixels.reserve(std::size_t(width) * height * channels);
    for (std::uint32_t y = 0; y < height; ++y) {
        std::uint32_t cy = chart::chartPosition(origin.top, dpi, y);
        for (std::uint32_t x = 0; x < width; ++x) {
            chart::Rgb c = chart::color(chart::chartPosition(origin.left, dpi, x), cy);
            if (channels == 1) {
                picture.pixels.push_back(chart::grayOf(c));
            } else {
                picture.pixels.insert(picture.pixels.end(), {c.r, c.g, c.b});
            }
        }
    }
    return picture;
}

std::vector<std::uint8_t> readAll(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::uint32_t big32(const std::vector<std::uint8_t>& b, std::size_t at)
{
    return std::uint32_t(b[at]) << 24 | std::uint32_t(b[at + 1]) << 16 | std::uint32_t(b[at + 2]) << 8 | b[at + 3];
}

namespace {

struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

}  // namespace

void writeBytes(const std::filesystem::path& file, const void* data, std::size_t length)
{
    std::ofstream(file, std::ios::binary).write(static_cast<const char*>(data), std::streamsize(length));
}

std::vector<Picture> decodeTiffPages(const std::filesystem::path& file)
{
    TIFFSetWarningHandler(nullptr);
    std::vector<Picture> pages;
    std::unique_ptr<TIFF, void (*)(TIFF*)> tiff(TIFFOpen(file.c_str(), "r"), TIFFClose);
    if (!tiff) return pages;
    do {
        std::uint32_t width = 0, height = 0;
        std::uint16_t samples = 0, bits = 0, photometric = 0, planar = PLANARCONFIG_CONTIG, unit = RESUNIT_INCH;
        float xRes = 0, yRes = 0;
        TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
        TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
        TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, &samples);
        TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_BITSPERSAMPLE, &bits);
        TIFFGetField(tiff.get(), TIFFTAG_PHOTOMETRIC, &photometric);
        TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_PLANARCONFIG, &planar);
        TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_RESOLUTIONUNIT, &unit);
        TIFFGetField(tiff.get(), TIFFTAG_XRESOLUTION, &xRes);
        TIFFGetField(tiff.get(), TIFFTAG_YRESOLUTION, &yRes);
        bool gray = samples == 1 && photometric == PHOTOMETRIC_MINISBLACK;
        bool rgb = samples == 3 && photometric == PHOTOMETRIC_RGB;
        if (bits != 8 || planar != PLANARCONFIG_CONTIG || !(gray || rgb) || unit != RESUNIT_INCH) return {};
        Picture picture{width, height, samples, xRes, yRes, {}};
        std::size_t rowBytes = std::size_t(width) * samples;
        if (std::size_t(TIFFScanlineSize(tiff.get())) != rowBytes) return {};
        picture.pixels.resize(rowBytes * height);
        for (std::uint32_t y = 0; y < height; ++y)
            if (TIFFReadScanline(tiff.get(), picture.pixels.data() + y * rowBytes, y) < 0) return {};
        pages.push_back(std::move(picture));
    } while (TIFFReadDirectory(tiff.get()));
    return pages;
}

std::optional<Picture> decodeTiff(const std::filesystem::path& file)
{
    std::vector<Picture> pages = decodeTiffPages(file);
    if (pages.empty()) return std::nullopt;
    return std::move(pages.front());
}

std::optional<Picture> decodeJpeg(const std::filesystem::path& file)
{
    std::vector<std::uint8_t> bytes = readAll(file);
    Picture picture;
    jpeg_decompress_struct info{};
    JpegError error{};
    info.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = [](j_common_ptr common) {
        std::longjmp(reinterpret_cast<JpegError*>(common->err)->jump, 1);
    };
    if (setjmp(error.jump)) {
        jpeg_destroy_decompress(&info);
        return std::nullopt;
    }
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, bytes.data(), static_cast<unsigned long>(bytes.size()));
    jpeg_read_header(&info, TRUE);
    jpeg_start_decompress(&info);
    picture.width = info.output_width;
    picture.height = info.output_height;
    picture.channels = std::uint32_t(info.output_components);
    if (info.density_unit == 1) {
        picture.xDpi = info.X_density;
        picture.yDpi = info.Y_density;
    }
    std::size_t rowBytes = std::size_t(picture.width) * picture.channels;
    picture.pixels.resize(rowBytes * picture.height);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = picture.pixels.data() + rowBytes * info.output_scanline;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
    return picture;
}

std::optional<Picture> decodePict(const std::filesystem::path& file, bool withFileHeader)
{
    std::vector<std::uint8_t> bytes = readAll(file);
    std::filesystem::path source = file;
    if (!withFileHeader) {  // ImageMagick reads PICT files, which begin with 512 unused bytes
        source += ".pict";
        bytes.insert(bytes.begin(), 512, 0);
        writeBytes(source, bytes.data(), bytes.size());
    }
    // Picture header: size, frame, version opcodes, then the extended
    // version 2 header whose resolutions are 16.16 fixed point, the clip
    // region, and the first bit-map record, which tells gray from colour.
    const std::size_t at = 512;
    if (bytes.size() < at + 48 || big32(bytes, at + 10) != 0x001102FF || bytes[at + 40] != 0 || bytes[at + 41] != 1)
        return std::nullopt;
    std::size_t record = at + 42 + (std::size_t(bytes[at + 42]) << 8 | bytes[at + 43]);
    if (bytes.size() < record + 2 || bytes[record] != 0) return std::nullopt;
    std::uint32_t channels = bytes[record + 1] == 0x9A ? 3 : bytes[record + 1] == 0x98 ? 1 : 0;
    if (channels == 0) return std::nullopt;
    // Gray stays gray and colour colour, as the picture says.
    std::filesystem::path tiff = file;
    tiff += ".tif";
    std::string command = "convert 'pict:" + source.string() + "' -alpha off -depth 8 -units PixelsPerInch -type " +
                          (channels == 3 ? "TrueColor '" : "Grayscale '") + tiff.string() + "' 2>&1";
    if (std::system(command.c_str()) != 0) return std::nullopt;
    std::optional<Picture> picture = decodeTiff(tiff);
    if (picture && picture->channels != channels) return std::nullopt;
    if (picture) {
        picture->xDpi = big32(bytes, at + 20) / 65536.0;
        picture->yDpi = big32(bytes, at + 24) / 65536.0;
    }
    return picture;
}

::testing::AssertionResult samePixels(const Picture& actual, const Picture& expected)
{
    if (actual.width != expected.width || actual.height != expected.height || actual.channels != expected.channels)
        return ::testing::AssertionFailure() << "shape " << actual.width << "x" << actual.height << "x"
                                             << actual.channels << ", expected " << expected.width << "x"
                                             << expected.height << "x" << expected.channels;
    std::size_t differ = 0, first = 0;
    for (std::size_t i = actual.pixels.size(); i-- > 0;)
        if (actual.pixels[i] != expected.pixels[i]) ++differ, first = i;
    if (differ == 0) return ::testing::AssertionSuccess();
    std::size_t pixel = first / actual.channels;
    return ::testing::AssertionFailure() << differ << " samples differ, first at x " << pixel % actual.width << " y "
                                         << pixel / actual.width << ": " << int(actual.pixels[first])
                                         << " instead of " << int(expected.pixels[first]);
}

::testing::AssertionResult closePixels(const Picture& actual, const Picture& expected, double minimumPsnr)
{
    if (actual.width != expected.width || actual.height != expected.height || actual.channels != expected.channels)
        return samePixels(actual, expected);
    double squares = 0;
    for (std::size_t i = 0; i < actual.pixels.size(); ++i) {
        double d = double(actual.pixels[i]) - double(expected.pixels[i]);
        squares += d * d;
    }
    double mse = squares / double(actual.pixels.size());
    double psnr = mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
    if (psnr >= minimumPsnr) return ::testing::AssertionSuccess() << "PSNR " << psnr;
    return ::testing::AssertionFailure() << "PSNR " << psnr << " dB, below " << minimumPsnr;
}

}  // namespace zentary::test
