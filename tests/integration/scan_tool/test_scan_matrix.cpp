// Every combination a user can ask for, through zentary-scan as a separate
// process: colour and gray, three resolutions, the three transfer
// mechanisms and the three file formats. Each image is decoded by an
// independent decoder and compared with the emulator's chart pixel by pixel.
#include <gtest/gtest.h>

#include <cmath>

#include "ToolRunner.h"
#include "emulator/TestChart.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

struct Case {
    const char* mode;
    int dpi;
    const char* xfer;
    const char* extension;
};

// A small frame keeps each case well under a second. In hundredths of an
// inch: left 100, top 50, 1 x 0.5 in (grid line at 1 in, colour bars above).
constexpr int kLeft = 100, kTop = 50;
constexpr double kWidth = 1.0, kHeight = 0.5;

std::string caseName(const ::testing::TestParamInfo<Case>& info)
{
    return std::string(info.param.mode) + "_" + std::to_string(info.param.dpi) + "_" + info.param.extension;
}

class ScanMatrix : public ::testing::TestWithParam<Case> {
protected:
    test::ScratchDir mScratch;
};

TEST_P(ScanMatrix, ImageMatchesTheChart)
{
    const Case& c = GetParam();
    std::string output = std::string("scan.") + c.extension;
    char area[64];
    std::snprintf(area, sizeof(area), "%g,%g,%g,%g", kLeft / 100.0, kTop / 100.0, kWidth, kHeight);
    test::ToolRun run = test::runTool(mScratch.path(),
                                      {"--device", "emulator", "--mode", c.mode, "--resolution", std::to_string(c.dpi),
                                       "--xfer", c.xfer, "--area", area, output},
                                      {"XDG_CONFIG_HOME=" + mScratch.path().string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(test::strayFiles(mScratch.path(), {output}), std::vector<std::string>{});

    std::filesystem::path file = mScratch.path() / output;
    std::string ext = c.extension;
    test::DecodedImage image = ext == "tif"   ? test::decodeTiffFile(file)
                               : ext == "jpg" ? test::decodeJpegFile(file)
                                              : test::decodePictFile(file, mScratch.path());
    ASSERT_GT(image.width, 0) << "undecodable " << output;
    bool gray = std::string(c.mode) == "gray";
    EXPECT_EQ(image.width, int(std::lround(kWidth * c.dpi)));
    EXPECT_EQ(image.height, int(std::lround(kHeight * c.dpi)));
    // JPEG writes gray as one channel; PICT comes back from ImageMagick as RGB.
    if (ext != "pct") {
        EXPECT_EQ(image.channels, gray ? 1 : 3);
    }
    EXPECT_NE(run.out.find(std::to_string(image.width) + " x " + std::to_string(image.height)), std::string::npos)
        << run.out;

    double totalError = 0;
    int worst = 0;
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            chart::Rgb rgb = chart::color(chart::chartPosition(kLeft, c.dpi, x), chart::chartPosition(kTop, c.dpi, y));
            int expected[3] = {rgb.r, rgb.g, rgb.b};
            for (int ch = 0; ch < image.channels; ++ch) {
                int want = gray ? chart::grayOf(rgb) : expected[ch];
                int diff = std::abs(int(image.at(x, y, ch)) - want);
                totalError += diff;
                worst = std::max(worst, diff);
            }
        }
    }
    double mean = totalError / (double(image.width) * image.height * image.channels);
    if (ext == "jpg") {
        EXPECT_LT(mean, 6.0) << "JPEG far from the chart";
    } else {
        EXPECT_EQ(worst, 0) << "lossless image differs from the chart (mean error " << mean << ")";
    }
}

std::vector<Case> casesFor(const char* xfer)
{
    std::vector<Case> cases;
    for (const char* mode : {"color", "gray"})
        for (int dpi : {150, 300, 600})
            for (const char* extension : {"tif", "jpg", "pct"}) cases.push_back({mode, dpi, xfer, extension});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Native, ScanMatrix, ::testing::ValuesIn(casesFor("native")), caseName);
INSTANTIATE_TEST_SUITE_P(Memory, ScanMatrix, ::testing::ValuesIn(casesFor("memory")), caseName);
INSTANTIATE_TEST_SUITE_P(File, ScanMatrix, ::testing::ValuesIn(casesFor("file")), caseName);

}  // namespace
}  // namespace zentary
