#include "Documents.h"

#include <hpdf.h>
#include <png.h>
#include <tiffio.h>

#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <vector>

#include "ImageOutput.h"
#include "OcrPdf.h"
#include "imaging/ByteSink.h"
#include "imaging/ImageExport.h"

namespace zentary {

namespace {

double dotsPerInch(const OffscreenImage& image)
{
    double dpi = image.hRes() / 65536.0;
    return dpi > 0 ? dpi : 72;
}

// libpng leaves by longjmp on any error: the rows are written in a frame
// with nothing to destroy.
bool writePngRows(png_structp png, png_infop info, const OffscreenImage& image, std::FILE* file)
{
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    bool gray = image.depth() == 8;
    png_set_IHDR(png, info, png_uint_32(image.width()), png_uint_32(image.height()), 8,
                 gray ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    auto perMetre = png_uint_32(std::lround(dotsPerInch(image) / 0.0254));
    png_set_pHYs(png, info, perMetre, perMetre, PNG_RESOLUTION_METER);
    png_write_info(png, info);
    // Colour rows are x R G B: libpng drops the leading byte itself.
    if (!gray) png_set_filler(png, 0, PNG_FILLER_BEFORE);
    for (int y = 0; y < image.height(); ++y) png_write_row(png, image.row(y));
    png_write_end(png, info);
    return true;
}

class PendingFiles {
public:
    bool add(const std::string& path, std::string* error)
    {
        auto file = PendingFile::create(path, error);
        if (!file) return false;
        mFiles.push_back(std::move(file));
        return true;
    }
    const std::string& last() const { return mFiles.back()->path(); }
    bool commit(bool overwrite, std::string* error)
    {
        for (auto& file : mFiles)
            if (!file->commit(overwrite, error)) return false;
        return true;
    }

private:
    std::vector<std::unique_ptr<PendingFile>> mFiles;
};

// One file a page, named from the user's pattern.
class PageFiles final : public Document {
public:
    explicit PageFiles(const ScanOptions& options) : mOptions(options) {}
    bool addPage(std::unique_ptr<OffscreenImage> page, std::string* error) override
    {
        std::string path = pagePath(mOptions.output, mPages + 1);
        if (!mFiles.add(path, error)) return false;
        bool written = false;
        switch (mOptions.format) {
        case OutputFormat::Png: written = writePng(*page, mFiles.last()); break;
        case OutputFormat::Jpeg: written = exportJpeg(*page, mFiles.last(), mOptions.quality); break;
        default: written = writeImage(*page, mOptions.format, mFiles.last()); break;
        }
        if (!written) {
            *error = "cannot write " + path;
            return false;
        }
        ++mPages;
        return true;
    }
    bool finish(std::string* error) override { return mFiles.commit(mOptions.overwrite, error); }

private:
    const ScanOptions& mOptions;
    PendingFiles mFiles;
};

// Every page a directory of one TIFF file, uncompressed like a single-page one.
class TiffPages final : public Document {
public:
    explicit TiffPages(const ScanOptions& options) : mOptions(options) {}
    bool open(std::string* error)
    {
        if (!mFiles.add(mOptions.output, error)) return false;
        mTiff.reset(TIFFOpen(mFiles.last().c_str(), "w"));
        if (!mTiff) *error = "cannot write " + mOptions.output;
        return bool(mTiff);
    }
    bool addPage(std::unique_ptr<OffscreenImage> page, std::string* error) override
    {
        TIFF* tiff = mTiff.get();
        bool gray = page->depth() == 8;
        auto width = std::uint32_t(page->width()), height = std::uint32_t(page->height());
        float dpi = float(dotsPerInch(*page));
        TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
        TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
        TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
        TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, gray ? 1 : 3);
        TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, gray ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
        TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
        TIFFSetField(tiff, TIFFTAG_XRESOLUTION, dpi);
        TIFFSetField(tiff, TIFFTAG_YRESOLUTION, dpi);
        TIFFSetField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
        // The total is not known until the user stops: 0 says so.
        TIFFSetField(tiff, TIFFTAG_PAGENUMBER, std::uint16_t(mPages), std::uint16_t(0));
        std::vector<std::uint8_t> line(gray ? 0 : std::size_t(width) * 3);
        for (std::uint32_t y = 0; y < height; ++y) {
            const std::uint8_t* row = page->row(int(y));
            if (!gray) packRgb(row, line.data(), int(width));
            if (TIFFWriteScanline(tiff, const_cast<std::uint8_t*>(gray ? row : line.data()), y, 0) < 0) {
                *error = "cannot write " + mOptions.output;
                return false;
            }
        }
        if (!TIFFWriteDirectory(tiff)) {
            *error = "cannot write " + mOptions.output;
            return false;
        }
        ++mPages;
        return true;
    }
    bool finish(std::string* error) override
    {
        TIFF* tiff = mTiff.release();
        TIFFClose(tiff);
        return mFiles.commit(mOptions.overwrite, error);
    }

private:
    struct Closer {
        void operator()(TIFF* tiff) const { TIFFClose(tiff); }
    };
    const ScanOptions& mOptions;
    PendingFiles mFiles;
    std::unique_ptr<TIFF, Closer> mTiff;
};

// A PDF through libharu: each page the scan's size in points, gray pages
// Flate-compressed (lossless), colour pages JPEG at the chosen quality.
class PdfPages final : public Document {
public:
    explicit PdfPages(const ScanOptions& options) : mOptions(options) {}
    bool open(std::string* error)
    {
        if (!mFiles.add(mOptions.output, error)) return false;
        mPdf.reset(HPDF_New(onError, &mStatus));
        if (!mPdf || HPDF_SetCompressionMode(mPdf.get(), HPDF_COMP_ALL) != HPDF_OK) {
            *error = "cannot start a PDF document";
            return false;
        }
        HPDF_SetInfoAttr(mPdf.get(), HPDF_INFO_CREATOR, "zentary-scan");
        return true;
    }
    bool addPage(std::unique_ptr<OffscreenImage> page, std::string* error) override
    {
        HPDF_Doc pdf = mPdf.get();
        double dpi = dotsPerInch(*page);
        auto width = HPDF_REAL(page->width() * 72.0 / dpi), height = HPDF_REAL(page->height() * 72.0 / dpi);
        HPDF_Image image = nullptr;
        if (page->depth() == 8) {
            std::vector<std::uint8_t> packed;
            const std::uint8_t* pixels = page->baseAddress();
            if (page->rowBytes() != std::size_t(page->width())) {
                packed.reserve(std::size_t(page->width()) * page->height());
                for (int y = 0; y < page->height(); ++y)
                    packed.insert(packed.end(), page->row(y), page->row(y) + page->width());
                pixels = packed.data();
            }
            image = HPDF_LoadRawImageFromMem(pdf, pixels, HPDF_UINT(page->width()), HPDF_UINT(page->height()),
                                             HPDF_CS_DEVICE_GRAY, 8);
        } else {
            std::vector<std::uint8_t> jpeg;
            MemorySink sink(jpeg);
            if (writeJpeg(*page, sink, mOptions.quality))
                image = HPDF_LoadJpegImageFromMem(pdf, jpeg.data(), HPDF_UINT(jpeg.size()));
        }
        HPDF_Page sheet = image ? HPDF_AddPage(pdf) : nullptr;
        if (!sheet || HPDF_Page_SetWidth(sheet, width) != HPDF_OK || HPDF_Page_SetHeight(sheet, height) != HPDF_OK ||
            HPDF_Page_DrawImage(sheet, image, 0, 0, width, height) != HPDF_OK) {
            *error = "cannot add page " + std::to_string(mPages + 1) + " to the PDF (libharu error " +
                     std::to_string(mStatus) + ")";
            return false;
        }
        ++mPages;
        return true;
    }
    bool finish(std::string* error) override
    {
        if (HPDF_SaveToFile(mPdf.get(), mFiles.last().c_str()) != HPDF_OK) {
            *error = "cannot write " + mOptions.output;
            return false;
        }
        return mFiles.commit(mOptions.overwrite, error);
    }

private:
    static void onError(HPDF_STATUS status, HPDF_STATUS, void* data) { *static_cast<HPDF_STATUS*>(data) = status; }
    struct Freer {
        void operator()(HPDF_Doc pdf) const { HPDF_Free(pdf); }
    };
    const ScanOptions& mOptions;
    PendingFiles mFiles;
    HPDF_STATUS mStatus = HPDF_OK;
    std::unique_ptr<std::remove_pointer_t<HPDF_Doc>, Freer> mPdf;
};

}  // namespace

bool writePng(const OffscreenImage& image, const std::string& path)
{
    if (image.depth() != 8 && image.depth() != 32) return false;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
    if (!file) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool written = info && writePngRows(png, info, image, file.get());
    png_destroy_write_struct(&png, &info);
    return written && std::fclose(file.release()) == 0;
}

std::unique_ptr<Document> makeDocument(const ScanOptions& options, OcrEngine* ocr, const std::string& workDir,
                                       const std::atomic<bool>& interrupted, std::string* error)
{
    if (ocr) return makeOcrPdf(options, *ocr, workDir, interrupted, error);
    if (options.format == OutputFormat::Pdf) {
        auto pdf = std::make_unique<PdfPages>(options);
        return pdf->open(error) ? std::move(pdf) : nullptr;
    }
    if (options.format == OutputFormat::Tiff && (options.pages != 1 || options.batch)) {
        auto tiff = std::make_unique<TiffPages>(options);
        return tiff->open(error) ? std::move(tiff) : nullptr;
    }
    return std::make_unique<PageFiles>(options);
}

}  // namespace zentary
