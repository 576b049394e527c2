// Debian's scanimage against the backend, found by the SANE dll loader
// through SANE_CONFIG_DIR (dll.conf) and LD_LIBRARY_PATH, as installed.
#include <unistd.h>

#include <gtest/gtest.h>

#include "SaneTestSupport.h"
#include "ToolRunner.h"

namespace zentary::test {
namespace {

constexpr const char* kScanimage = "/usr/bin/scanimage";

class SaneScanimageTest : public ::testing::Test {
protected:
    void SetUp() override
    {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "scanimage is not built with the sanitizer our backend needs loaded first";
#endif
        if (access(kScanimage, X_OK) != 0) GTEST_SKIP() << "sane-utils is not installed";
        std::filesystem::create_directories(mScratch.path() / "scans");
        writeSaneConfig(mScratch.path());
    }
    ToolRun run(const std::vector<std::string>& args, const std::string& scanner = "emulator",
                const Signals& signals = {})
    {
        return runProgram(kScanimage, mScratch.path(), args,
                          {"SANE_CONFIG_DIR=" + mScratch.path().string(), "LD_LIBRARY_PATH=" + saneDir().string(),
                           "ZENTARY_SCANNER=" + scanner, "TMPDIR=" + (mScratch.path() / "scans").string()},
                          signals);
    }
    bool scanDirEmpty() const { return std::filesystem::is_empty(mScratch.path() / "scans"); }

    ScratchDir mScratch;
};

TEST_F(SaneScanimageTest, ListsTheDeviceAndEveryOption)
{
    ToolRun list = run({"-L"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    EXPECT_NE(list.out.find("`zentary:emulator'"), std::string::npos) << list.out;
    ToolRun all = run({"-d", "zentary:emulator", "-A"});
    ASSERT_EQ(all.exitCode, 0) << all.err;
    for (const char* option : {"--mode Gray|Color [Color]", "--resolution 150|300|600|1200dpi [300]", "--preview",
                               "-l 0..215.9mm", "-t 0..297.18mm", "-x 0..215.9mm", "-y 0..297.18mm"})
        EXPECT_NE(all.out.find(option), std::string::npos) << option << "\n" << all.out;
}

TEST_F(SaneScanimageTest, TiffIsTheChart)
{
    struct Case {
        std::vector<std::string> args;
        bool gray;
        std::uint32_t dpi;
        Area area;
        std::string scanner = "emulator";
    } cases[] = {
        {{"--mode", "Color", "--resolution", "300"}, false, 300, {0, 0, 215.9, 297.18}},
        {{"--mode", "Gray", "--resolution", "150", "-l", "25.4", "-t", "50.8", "-x", "76.2", "-y", "25.4"},
         true, 150, {25.4, 50.8, 101.6, 76.2}},
        // Values off the scanner's grid or past the glass are constrained, not refused.
        {{"--mode", "gray", "--resolution", "200", "-l", "-5", "-t", "-5", "-x", "0.1", "-y", "0.1"},
         true, 150, {0, 0, 0.254, 0.254}},
        {{"--mode", "col", "--resolution", "600", "-l", "200", "-t", "280", "-x", "300"},
         false, 600, {199.898, 279.908, 215.9, 297.18}},
        // 2.36 in at 150 dpi is 353 rows to the scanner, 354 in exact arithmetic.
        {{"--resolution", "150", "-l", "10", "-t", "20", "-x", "80", "-y", "60"}, false, 150, {10, 20, 90, 80}},
        // A scanner warming up is waited for; a preview is quick.
        {{"--preview=yes", "--resolution", "600", "-x", "25.4", "-y", "25.4"}, false, 150, {0, 0, 25.4, 25.4},
         "emulator:fault=not-ready@3"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"-d", "zentary:emulator", "--format=tiff"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ToolRun scan = run(args, c.scanner);
        ASSERT_EQ(scan.exitCode, 0) << scan.err;
        std::filesystem::path out = mScratch.path() / "out.tiff";
        writeBytes(out, scan.out.data(), scan.out.size());
        std::optional<Picture> image = decodeTiff(out);
        ASSERT_TRUE(image);
        const std::uint32_t width = scanPixels(hundredths(c.area.right - c.area.left), c.dpi);
        const std::uint32_t rows = scanPixels(hundredths(c.area.bottom - c.area.top), c.dpi);
        EXPECT_TRUE(samePixels(*image, chartPicture({hundredths(c.area.left), hundredths(c.area.top)}, c.dpi, width,
                                                    rows, c.gray ? 1 : 3)));
        EXPECT_TRUE(scanDirEmpty());
    }
}

TEST_F(SaneScanimageTest, InterruptLeavesNoTemporaryFile)
{
    // Interrupted once the page is under way: a whole one would take 25 s.
    ToolRun scan = run({"-d", "zentary:emulator", "--resolution", "600", "--progress"}, "emulator:mbps=4",
                       {"Progress:", {{500, SIGINT}}});
    EXPECT_NE(scan.exitCode, 128 + SIGINT) << "ended by the signal, not by its cancel";
    EXPECT_GT(scan.out.size(), 0u);
    EXPECT_LT(scan.out.size(), 600u * 600u * 4u * 8u);  // far from the whole page
    EXPECT_TRUE(scanDirEmpty());
}

}  // namespace
}  // namespace zentary::test
