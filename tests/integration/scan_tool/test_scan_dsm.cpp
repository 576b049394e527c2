// zentary-scan --dsm: the same scan through an installed TWAIN manager (the
// test stand-in libminidsm.so, which finds the .ds under build/twain), and
// a clear refusal of anything that is not a usable manager.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "ToolRunner.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

namespace fs = std::filesystem;

constexpr int kUsage = 2, kDevice = 3;
constexpr std::uint32_t kLeft = 100, kTop = 50, kDpi = 150;  // hundredths of an inch; a 1 x 0.5 in frame

std::string env(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "";
}

class ScanDsm : public ::testing::Test {
protected:
    test::ScratchDir mScratch;
    std::vector<std::string> mEnv{"XDG_CONFIG_HOME=" + mScratch.path().string()};
    std::string mDsm = env("ZENTARY_TEST_DSM");
};

TEST_F(ScanDsm, ImageThroughTheManagerMatchesTheChart)
{
    ASSERT_FALSE(mDsm.empty());
    struct Case {
        std::vector<std::string> xfer;  // none: the default, a file transfer
        const char* mode;
    } cases[] = {{{}, "color"}, {{"--xfer", "memory"}, "gray"}, {{"--xfer", "native"}, "color"}, {{"--xfer", "native"}, "gray"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        std::vector<std::string> args = {"--dsm", mDsm, "--device", "emulator", "--mode", c.mode,
                                         "--resolution", std::to_string(kDpi), "--area", "1,0.5,1,0.5", "scan.tif"};
        args.insert(args.end() - 1, c.xfer.begin(), c.xfer.end());
        fs::remove(mScratch.path() / "scan.tif");
        test::ToolRun run = test::runTool(mScratch.path(), args, mEnv);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        std::optional<test::Picture> image = test::decodeTiff(mScratch.path() / "scan.tif");
        ASSERT_TRUE(image);
        const std::uint32_t channels = std::string(c.mode) == "gray" ? 1 : 3;
        EXPECT_TRUE(test::samePixels(*image, test::chartPicture({kLeft, kTop}, kDpi, kDpi, kDpi / 2, channels)));
    }
}

TEST_F(ScanDsm, ListThroughTheManagerIsTheListWithoutAndHoldsEveryCapability)
{
    ASSERT_FALSE(mDsm.empty());
    test::ToolRun direct = test::runTool(mScratch.path(), {"--device", "emulator", "--list", "--json"}, mEnv);
    test::ToolRun managed =
        test::runTool(mScratch.path(), {"--dsm", mDsm, "--device", "emulator", "--list", "--json"}, mEnv);
    ASSERT_EQ(managed.exitCode, 0) << managed.err;
    for (const char* text : {"\"productName\":\"Tarvell Zentary Q305 MFP\"", "\"ICAP_FRAMES\"",
                             "{\"name\":\"ICAP_XRESOLUTION\",\"id\":4376,\"container\":\"TWON_ENUMERATION\","
                             "\"type\":\"TWTY_FIX32\",\"current\":\"300\",\"default\":\"300\","
                             "\"valid\":[\"150\",\"300\",\"600\",\"1200\"]}",
                             "\"valid\":[\"TWSX_NATIVE\",\"TWSX_FILE\",\"TWSX_MEMORY\",\"TWSX_FILE2\"]"})
        EXPECT_NE(managed.out.find(text), std::string::npos) << text << "\n" << managed.out;
    EXPECT_EQ(managed.out, direct.out);
}

TEST_F(ScanDsm, WhatIsNotAUsableManagerIsRefusedInOneLine)
{
    std::ofstream(mScratch.path() / "text.so") << "not a library";
    fs::create_directory(mScratch.path() / "empty");
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> env;
        int exitCode;
        const char* says;
    } cases[] = {
        {{"--dsm", (mScratch.path() / "text.so").string()}, {}, kDevice, "cannot load the TWAIN manager"},
        {{"--dsm", "/nonexistent/libtwaindsm.so"}, {}, kDevice, "cannot load the TWAIN manager"},
        {{"--dsm", env("ZENTARY_DS")}, {}, kDevice, "does not export DSM_Entry"},
        {{"--dsm", mDsm, "--source-name", "Flatbed 9000"}, {}, kDevice, "no source named \"Flatbed 9000\""},
        {{"--dsm", mDsm}, {"ZENTARY_TEST_DSM_DIR=" + (mScratch.path() / "empty").string()}, kDevice, "no source"},
        {{"--dsm", mDsm, "--source", env("ZENTARY_DS")}, {}, kUsage, "--source and --dsm exclude each other"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[1] + " " + c.args.back());
        std::vector<std::string> args = c.args;
        for (const char* more : {"--device", "emulator", "out.tif"}) args.push_back(more);
        std::vector<std::string> runEnv = mEnv;
        runEnv.insert(runEnv.end(), c.env.begin(), c.env.end());
        test::ToolRun run = test::runTool(mScratch.path(), args, runEnv);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_EQ(test::strayFiles(mScratch.path(), {"text.so", "empty"}), std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace zentary
