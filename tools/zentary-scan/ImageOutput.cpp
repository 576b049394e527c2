#include "ImageOutput.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Documents.h"
#include "imaging/FileIo.h"
#include "imaging/ImageExport.h"

namespace zentary {

namespace {

using namespace twain;

mode_t currentUmask()
{
    mode_t mask = umask(0);
    umask(mask);
    return mask;
}

// libtiff reads the native transfer's bytes through these, never past the end.
struct MemoryTiff {
    std::span<const std::uint8_t> bytes;
    toff_t position = 0;
};

tsize_t tiffRead(thandle_t handle, tdata_t data, tsize_t size)
{
    auto* in = static_cast<MemoryTiff*>(handle);
    if (size < 0 || in->position >= in->bytes.size()) return 0;
    std::size_t count = std::min<std::size_t>(static_cast<std::size_t>(size), in->bytes.size() - in->position);
    std::memcpy(data, in->bytes.data() + in->position, count);
    in->position += count;
    return static_cast<tsize_t>(count);
}
tsize_t tiffWrite(thandle_t, tdata_t, tsize_t) { return -1; }
toff_t tiffSeek(thandle_t handle, toff_t offset, int whence)
{
    auto* in = static_cast<MemoryTiff*>(handle);
    toff_t base = whence == SEEK_CUR ? in->position : whence == SEEK_END ? in->bytes.size() : 0;
    in->position = base + offset;
    return in->position;
}
int tiffClose(thandle_t) { return 0; }
toff_t tiffSize(thandle_t handle) { return static_cast<MemoryTiff*>(handle)->bytes.size(); }
int tiffMap(thandle_t, tdata_t*, toff_t*) { return 0; }
void tiffUnmap(thandle_t, tdata_t, toff_t) {}

struct TiffCloser {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};

// libtiff reports problems on stderr by default; the user gets our one line.
void quietHandler(const char*, const char*, va_list) {}

}  // namespace

std::unique_ptr<PendingFile> PendingFile::create(const std::string& finalPath, std::string* error,
                                                 const std::string& suffix)
{
    std::filesystem::path target(finalPath);
    std::filesystem::path dir = target.parent_path().empty() ? std::filesystem::path(".") : target.parent_path();
    std::string pattern = (dir / ("." + target.filename().string() + ".XXXXXX" + suffix)).string();
    int fd = mkstemps(pattern.data(), static_cast<int>(suffix.size()));
    if (fd < 0) {
        *error = "cannot write to " + dir.string() + ": " + std::strerror(errno);
        return nullptr;
    }
    close(fd);
    std::unique_ptr<PendingFile> file(new PendingFile);
    file->mFinalPath = finalPath;
    file->mTemporaryPath = pattern;
    return file;
}

PendingFile::~PendingFile()
{
    if (!mCommitted) unlink(mTemporaryPath.c_str());
}

bool PendingFile::commit(bool overwrite, std::string* error)
{
    // mkstemp made it private; the user's file gets the usual mode.
    chmod(mTemporaryPath.c_str(), 0666 & ~currentUmask());
    int rc = overwrite ? rename(mTemporaryPath.c_str(), mFinalPath.c_str())
                       : renameat2(AT_FDCWD, mTemporaryPath.c_str(), AT_FDCWD, mFinalPath.c_str(), RENAME_NOREPLACE);
    if (rc != 0) {
        *error = errno == EEXIST ? mFinalPath + " exists (use --overwrite to replace it)"
                                 : "cannot write " + mFinalPath + ": " + std::strerror(errno);
        return false;
    }
    mCommitted = true;
    return true;
}

std::unique_ptr<OffscreenImage> decodeTiff(std::span<const std::uint8_t> bytes, std::string* error)
{
    TIFFSetErrorHandler(quietHandler);
    TIFFSetWarningHandler(quietHandler);
    MemoryTiff in{bytes};
    std::unique_ptr<TIFF, TiffCloser> tiff(TIFFClientOpen("native", "rm", &in, tiffRead, tiffWrite, tiffSeek,
                                                          tiffClose, tiffSize, tiffMap, tiffUnmap));
    if (!tiff) {
        *error = "the native image is not a readable TIFF";
        return nullptr;
    }
    std::uint32_t width = 0, height = 0;
    std::uint16_t samples = 1, bits = 8, planar = PLANARCONFIG_CONTIG;
    float xres = 72;
    TIFFGetField(tiff.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tiff.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tiff.get(), TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetField(tiff.get(), TIFFTAG_XRESOLUTION, &xres);
    if (bits != 8 || (samples != 1 && samples != 3) || planar != PLANARCONFIG_CONTIG || width == 0 || height == 0 ||
        width > OffscreenImage::kMaximumCoordinate || height > OffscreenImage::kMaximumCoordinate) {
        *error = "the native image is a TIFF this tool cannot read";
        return nullptr;
    }
    Rect bounds{0, 0, static_cast<std::int16_t>(height), static_cast<std::int16_t>(width)};
    auto image = OffscreenImage::create(samples == 1 ? 8 : 32, bounds);
    tmsize_t lineSize = TIFFScanlineSize(tiff.get());
    if (!image || lineSize < static_cast<tmsize_t>(width) * samples) {
        *error = "out of memory for the image";
        return nullptr;
    }
    std::vector<std::uint8_t> line(static_cast<std::size_t>(lineSize));
    for (std::uint32_t y = 0; y < height; ++y) {
        if (TIFFReadScanline(tiff.get(), line.data(), y) < 0) {
            *error = "the native image's TIFF data is broken";
            return nullptr;
        }
        std::uint8_t* row = image->row(static_cast<int>(y));
        if (samples == 1) {
            std::memcpy(row, line.data(), width);
        } else {
            for (std::uint32_t x = 0; x < width; ++x) {
                row[4 * x] = 0xFF;
                std::memcpy(row + 4 * x + 1, line.data() + 3 * x, 3);
            }
        }
    }
    Fixed res = static_cast<Fixed>(xres * 65536.0f);
    image->setResolution(res, res);
    return image;
}

std::unique_ptr<StripAssembler> StripAssembler::create(const TW_IMAGEINFO& info, std::string* error)
{
    bool gray = info.PixelType == TWPT_GRAY && info.BitsPerPixel == 8;
    bool color = info.PixelType == TWPT_RGB && info.BitsPerPixel == 24;
    if ((!gray && !color) || info.ImageWidth <= 0 || info.ImageLength <= 0 ||
        info.ImageWidth > OffscreenImage::kMaximumCoordinate || info.ImageLength > OffscreenImage::kMaximumCoordinate) {
        *error = "the data source describes an image this tool cannot hold";
        return nullptr;
    }
    Rect bounds{0, 0, static_cast<std::int16_t>(info.ImageLength), static_cast<std::int16_t>(info.ImageWidth)};
    std::unique_ptr<StripAssembler> assembler(new StripAssembler);
    assembler->mImage = OffscreenImage::create(gray ? 8 : 32, bounds);
    if (!assembler->mImage) {
        *error = "out of memory for the image";
        return nullptr;
    }
    Fixed res = info.XResolution.Whole * 65536 + info.XResolution.Frac;
    assembler->mImage->setResolution(res, res);
    return assembler;
}

bool StripAssembler::add(const TW_IMAGEMEMXFER& strip, std::span<const std::uint8_t> buffer, std::string* error)
{
    const int width = mImage->width();
    const int bytesPerPixel = mImage->depth() == 8 ? 1 : 3;
    const std::uint64_t dataBytes = static_cast<std::uint64_t>(width) * bytesPerPixel;
    const std::uint64_t rows = strip.Rows;
    if (strip.Compression != TWCP_NONE || strip.Columns != static_cast<TW_UINT32>(width) || strip.XOffset != 0 ||
        strip.BytesPerRow < dataBytes || strip.YOffset != mRowsReceived ||
        strip.YOffset + rows > static_cast<std::uint64_t>(mImage->height()) ||
        static_cast<std::uint64_t>(strip.BytesPerRow) * rows > strip.BytesWritten ||
        strip.BytesWritten > buffer.size()) {
        *error = "the data source sent a memory strip that does not fit the image";
        return false;
    }
    for (std::uint64_t r = 0; r < rows; ++r) {
        const std::uint8_t* in = buffer.data() + r * strip.BytesPerRow;
        std::uint8_t* out = mImage->row(static_cast<int>(strip.YOffset + r));
        if (bytesPerPixel == 1) {
            std::memcpy(out, in, static_cast<std::size_t>(width));
        } else {
            for (int x = 0; x < width; ++x) {
                out[4 * x] = 0xFF;
                std::memcpy(out + 4 * x + 1, in + 3 * x, 3);
            }
        }
    }
    mRowsReceived += rows;
    return true;
}

bool writeImage(const OffscreenImage& image, OutputFormat format, const std::string& path)
{
    switch (format) {
    case OutputFormat::Tiff: return exportTiff(image, path);
    case OutputFormat::Jpeg: return exportJpeg(image, path);
    case OutputFormat::Pict: return exportPict(image, path);
    case OutputFormat::Png: return writePng(image, path);
    case OutputFormat::Pdf: return false;  // a document of its own (Documents.h)
    }
    return false;
}

bool writeBytes(std::span<const std::uint8_t> bytes, const std::string& path)
{
    // No fsync: the file is moved over the user's path by rename, which the
    // file system orders after its data (ext4's replace-via-rename rule), and
    // a new scan lost to a power cut is simply scanned again. Forcing it to
    // the disk tripled the time of a 600 dpi page.
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    return fd.valid() && writeFully(fd.get(), bytes.data(), bytes.size()) && ::close(fd.release()) == 0;
}

}  // namespace zentary
