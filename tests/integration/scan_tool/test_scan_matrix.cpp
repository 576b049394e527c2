// Every transfer mechanism with every file format, through zentary-scan as a
// separate process, colour and gray in turn and each resolution a user may
// pick at least once. Each image is decoded by an independent decoder and
// compared with the emulator's chart pixel by pixel. Gray and colour at each
// resolution through each mechanism are the transfer tests' matrix, through
// the loaded data source; here the tool's own writing of what it received.
#include <gtest/gtest.h>

#include <cmath>

#include "ToolRunner.h"
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
constexpr std::uint32_t kLeft = 100, kTop = 50;
constexpr double kWidth = 1.0, kHeight = 0.5;

std::string caseName(const ::testing::TestParamInfo<Case>& info)
{
    return std::string(info.param.mode) + "_" + std::to_string(info.param.dpi) + "_" + info.param.extension;
}

class ScanMatrix : public ::testing::TestWithParam<Case> {
protected:
    test::ScratchDir mScratch;
    // The raw scan goes to a folder of the run's own: a scan of another
    // process in the same second must not meet its name in a shared /tmp.
    std::filesystem::path mTmp = mScratch.path() / "tmp";
    void SetUp() override { std::filesystem::create_directory(mTmp); }
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
                                      {"XDG_CONFIG_HOME=" + mScratch.path().string(), "TMPDIR=" + mTmp.string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(test::strayFiles(mScratch.path(), {output, "tmp"}), std::vector<std::string>{});
    EXPECT_EQ(test::strayFiles(mTmp), std::vector<std::string>{}) << "raw scan left behind";

    std::filesystem::path file = mScratch.path() / output;
    std::string ext = c.extension;
    std::optional<test::Picture> image = ext == "tif"   ? test::decodeTiff(file)
                                         : ext == "jpg" ? test::decodeJpeg(file)
                                                        : test::decodePict(file, true);
    ASSERT_TRUE(image) << "undecodable " << output;
    EXPECT_EQ(std::pair(image->xDpi, image->yDpi), std::pair(double(c.dpi), double(c.dpi)));
    const auto width = std::uint32_t(std::lround(kWidth * c.dpi)), height = std::uint32_t(std::lround(kHeight * c.dpi));
    EXPECT_NE(run.out.find(std::to_string(width) + " x " + std::to_string(height)), std::string::npos) << run.out;
    test::Picture chart = test::chartPicture({kLeft, kTop}, std::uint32_t(c.dpi), width, height,
                                             std::string(c.mode) == "gray" ? 1 : 3);
    EXPECT_TRUE(ext == "jpg" ? test::closePixels(*image, chart, 35.0) : test::samePixels(*image, chart));
}

std::vector<Case> casesFor(const char* xfer)
{
    std::vector<Case> cases;
    const int dpis[] = {150, 300, 600};
    const char* const extensions[] = {"tif", "jpg", "pct"};
    for (int i = 0; i < 6; ++i) cases.push_back({i % 2 ? "gray" : "color", dpis[(i + i / 3) % 3], xfer, extensions[i % 3]});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Native, ScanMatrix, ::testing::ValuesIn(casesFor("native")), caseName);
INSTANTIATE_TEST_SUITE_P(Memory, ScanMatrix, ::testing::ValuesIn(casesFor("memory")), caseName);
INSTANTIATE_TEST_SUITE_P(File, ScanMatrix, ::testing::ValuesIn(casesFor("file")), caseName);

}  // namespace
}  // namespace zentary
