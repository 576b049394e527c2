// Documents from zentary-scan: PNG and PDF output, several pages into one
// PDF, one multi-page TIFF or numbered files, searchable PDF, and a page
// picture on the emulated glass. What the tool wrote is read back by tools
// that share nothing with it (libpng, libtiff, poppler's pdfinfo, pdfimages
// and pdftotext) and compared with the chart or the page picture.
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "ToolRunner.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

namespace fs = std::filesystem;

// A small frame at 150 dpi keeps every case well under a second.
const std::vector<std::string> kSmall = {"--device", "emulator", "--resolution", "150", "--area", "1,0.5,1,0.5"};
constexpr test::Origin kOrigin{100, 50};
constexpr std::uint32_t kWidth = 150, kHeight = 75;

// A PNG in its own channels (gray or RGB, alpha dropped) as libpng reads it;
// the resolution from its pHYs chunk (pixels per metre, unit 1).
std::optional<test::Picture> decodePng(const fs::path& file)
{
    std::vector<std::uint8_t> bytes = test::readAll(file);
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) return std::nullopt;
    image.format = (image.format & PNG_FORMAT_FLAG_COLOR) ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
    test::Picture picture{image.width, image.height, PNG_IMAGE_SAMPLE_CHANNELS(image.format), 0, 0, {}};
    picture.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr)) return std::nullopt;
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    std::size_t at = text.find("pHYs");
    if (at != std::string_view::npos && at + 13 <= bytes.size() && bytes[at + 12] == 1) {
        picture.xDpi = std::round(test::big32(bytes, at + 4) * 0.0254);
        picture.yDpi = std::round(test::big32(bytes, at + 8) * 0.0254);
    }
    return picture;
}

// The pictures of a PDF's pages, as poppler extracts them.
std::vector<test::Picture> pdfPictures(const fs::path& pdf)
{
    fs::path prefix = pdf.parent_path() / "extracted";
    test::commandOutput("pdfimages -png '" + pdf.string() + "' '" + prefix.string() + "'");
    std::vector<test::Picture> pictures;
    for (int i = 0;; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "-%03d.png", i);
        fs::path file = prefix.string() + name;
        auto picture = decodePng(file);
        if (!picture) break;
        pictures.push_back(std::move(*picture));
        fs::remove(file);
    }
    return pictures;
}

enum class Kind { Png, Pdf, Tiff };

struct DocumentCase {
    const char* name;
    std::vector<std::string> args;
    std::vector<std::string> files;  // what the run leaves, in page order
    Kind kind;
    int pages;
    std::uint32_t channels;
    double minimumPsnr;  // 0: lossless
};

class ScanDocuments : public ::testing::Test {
protected:
    test::ScratchDir mScratch;
    std::vector<std::string> mEnv{"XDG_CONFIG_HOME=" + mScratch.path().string()};

    test::ToolRun run(std::vector<std::string> args, const test::Signals& signals = {})
    {
        return test::runTool(mScratch.path(), args, mEnv, signals);
    }
};

std::vector<std::string> small(std::vector<std::string> more)
{
    std::vector<std::string> args = kSmall;
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST_F(ScanDocuments, EveryPageMatchesTheChart)
{
    const DocumentCase cases[] = {
        {"colour PNG", small({"scan.png"}), {"scan.png"}, Kind::Png, 1, 3, 0},
        {"numbered PNGs by native transfer", small({"--mode", "gray", "--xfer", "native", "--pages", "2", "p-%02d.png"}),
         {"p-01.png", "p-02.png"}, Kind::Png, 2, 1, 0},
        {"gray PDF by file transfer", small({"--mode", "gray", "--xfer", "file", "--pages", "2", "doc.pdf"}),
         {"doc.pdf"}, Kind::Pdf, 2, 1, 0},
        {"colour PDF", small({"--quality", "95", "doc.pdf"}), {"doc.pdf"}, Kind::Pdf, 1, 3, 30},
        {"multi-page TIFF", small({"--pages", "2", "scans.tiff"}), {"scans.tiff"}, Kind::Tiff, 2, 3, 0},
    };
    for (const DocumentCase& c : cases) {
        SCOPED_TRACE(c.name);
        test::ToolRun result = run(c.args);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(test::strayFiles(mScratch.path(), c.files), std::vector<std::string>{});
        std::vector<test::Picture> pages;
        fs::path first = mScratch.path() / c.files.front();
        if (c.kind == Kind::Png) {
            for (const std::string& file : c.files)
                if (auto picture = decodePng(mScratch.path() / file)) pages.push_back(std::move(*picture));
        } else if (c.kind == Kind::Tiff) {
            pages = test::decodeTiffPages(first);
        } else {
            std::string info = test::commandOutput("pdfinfo '" + first.string() + "'");
            EXPECT_NE(info.find("Pages:           " + std::to_string(c.pages)), std::string::npos) << info;
            // 1 x 0.5 inch.
            EXPECT_NE(info.find("Page size:       72 x 36 pts"), std::string::npos) << info;
            pages = pdfPictures(first);
        }
        ASSERT_EQ(pages.size(), std::size_t(c.pages));
        test::Picture chart = test::chartPicture(kOrigin, 150, kWidth, kHeight, c.channels);
        for (const test::Picture& page : pages) {
            if (c.kind != Kind::Pdf) {
                EXPECT_EQ(page.xDpi, 150);
            }
            EXPECT_TRUE(c.minimumPsnr > 0 ? test::closePixels(page, chart, c.minimumPsnr)
                                          : test::samePixels(page, chart));
        }
        for (const std::string& file : c.files) fs::remove(mScratch.path() / file);
    }
}

TEST_F(ScanDocuments, SearchablePdfOfAPagePictureHoldsItsWords)
{
    // The typeset page is a 300 dpi letter page: scanned at 300 dpi from the
    // corner, the glass gives back its very pixels. Its top 2.5 inches hold
    // the title and a paragraph; two pages make the second scan overlap the
    // first one's recognition.
    fs::path page = fs::path(std::getenv("ZENTARY_SOURCE_DIR")) / "tests/data/garden-letter.png";
    test::ToolRun result = run({"--device", "emulator:image=" + page.string(), "--mode", "gray", "--resolution",
                                "300", "--area", "0,0,8.5,2.5", "--pages", "2", "--ocr", "eng", "letter.pdf"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    fs::path pdf = mScratch.path() / "letter.pdf";
    std::string text = test::commandOutput("pdftotext '" + pdf.string() + "' -");
    for (const char* word : {"Garden", "spring", "apple", "blossom", "hedge"})
        EXPECT_NE(text.find(word), std::string::npos) << word << " not in:\n" << text;
    std::string info = test::commandOutput("pdfinfo '" + pdf.string() + "'");
    EXPECT_NE(info.find("Page size:       612 x 180 pts"), std::string::npos) << info;

    std::vector<test::Picture> pictures = pdfPictures(pdf);
    auto original = decodePng(page);
    ASSERT_TRUE(original);
    original->height = 750;
    original->pixels.resize(std::size_t(original->width) * original->height);
    original->xDpi = original->yDpi = 0;
    ASSERT_EQ(pictures.size(), 2u);
    for (const test::Picture& picture : pictures) EXPECT_TRUE(test::samePixels(picture, *original));
}

TEST_F(ScanDocuments, BadCombinationsAreRefusedBeforeScanning)
{
    struct Case {
        std::vector<std::string> args;
        const char* says;
    } cases[] = {
        {small({"--ocr", "eng", "x.png"}), "searchable PDF"},
        {small({"--ocr", "zz9", "x.pdf"}), "tesseract-ocr-zz9"},
        {small({"--ocr", "../eng", "x.pdf"}), "not a Tesseract language"},
        {small({"--batch", "x.pdf"}), "terminal"},
        {small({"--pages", "2", "x.png"}), "page-%03d.png"},
        {small({"--pages", "2", "x%d-%d.jpg"}), "exactly one"},
        {small({"--pages", "2", "x%s.png"}), "exactly one"},
        {small({"--quality", "90", "x.tif"}), "--quality"},
        {small({"--quality", "0", "x.jpg"}), "1 to 100"},
        {{"--device", "emulator:image=missing.png", "x.png"}, "missing.png"},
    };
    for (const Case& c : cases) {
        test::ToolRun result = run(c.args);
        EXPECT_EQ(result.exitCode, 2) << c.says;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(test::strayFiles(mScratch.path()), std::vector<std::string>{});
    }
}

TEST_F(ScanDocuments, CtrlCLeavesNoDocumentUnlessAskedToKeepThePagesSoFar)
{
    // 3 MB a page at 4 MB/s: a second after the first page's transfer
    // began, Ctrl-C lands in the scan of the second of three.
    for (bool keep : {false, true}) {
        std::vector<std::string> args = {"--device", "emulator:mbps=4", "--mode", "gray", "--area", "0,0,8.5,4",
                                         "--pages", "3", "doc.pdf"};
        if (keep) args.insert(args.begin(), "--keep-partial");
        test::ToolRun result = run(args, {"Transferring...", {{1000, SIGINT}}});
        EXPECT_EQ(result.exitCode, 130) << result.err;
        if (!keep) {
            EXPECT_EQ(test::strayFiles(mScratch.path()), std::vector<std::string>{});
            continue;
        }
        EXPECT_EQ(test::strayFiles(mScratch.path(), {"doc.pdf"}), std::vector<std::string>{});
        std::string info = test::commandOutput("pdfinfo '" + (mScratch.path() / "doc.pdf").string() + "'");
        EXPECT_NE(info.find("Pages:           1"), std::string::npos) << info;
    }
}

}  // namespace
}  // namespace zentary
