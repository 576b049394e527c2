// zentary-scan's promises beyond the pixels: bad input is refused in one
// line before anything is touched, scanner faults and cancellation end with
// their own exit codes and leave no file, and an installed copy finds its
// data source by itself.
#include <gtest/gtest.h>

#include <fstream>

#include "ToolRunner.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

namespace fs = std::filesystem;

constexpr int kUsage = 2, kDevice = 3, kCancelled = 130;
const std::vector<std::string> kSmall = {"--device", "emulator", "--resolution", "150", "--area", "0.5,0.5,1,1"};

std::vector<std::string> with(std::vector<std::string> args, const std::vector<std::string>& more)
{
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

class ScanTool : public ::testing::Test {
protected:
    test::ScratchDir mScratch;
    std::vector<std::string> mEnv{"XDG_CONFIG_HOME=" + mScratch.path().string()};
};

TEST_F(ScanTool, BadInputIsRefusedInOneLineAndTouchesNothing)
{
    test::writeFile(mScratch.path() / "old.tif", "keep me");
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        const char* says;
    } cases[] = {
        {{"--frobnicate", "x.tif"}, kUsage, "--frobnicate"},
        {with(kSmall, {"--resolution", "200", "x.tif"}), kUsage, "150, 300, 600, 1200"},
        {with(kSmall, {"missing-dir/x.tif"}), kUsage, "cannot write to missing-dir"},
        {with(kSmall, {"old.tif"}), kUsage, "--overwrite"},
        {with(kSmall, {"x.bmp"}), kUsage, ".tif"},
        {{"--area", "1,2,3", "x.tif"}, kUsage, "LEFT,TOP,WIDTH,HEIGHT"},
        {{"--device", "emulator:fault=melt", "x.tif"}, kUsage, "melt"},
        {{"--mode", "sepia", "x.tif"}, kUsage, "sepia"},
        {{"--device", "usb", "x.tif"}, kDevice, "no Zentary Q305 on USB"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.front() + " ... " + c.args.back());
        test::ToolRun run = test::runTool(mScratch.path(), c.args, mEnv);
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_EQ(test::strayFiles(mScratch.path(), {"old.tif"}), std::vector<std::string>{});
    }
    EXPECT_EQ(test::readFile(mScratch.path() / "old.tif"), "keep me");
    test::ToolRun run = test::runTool(mScratch.path(), with(kSmall, {"--overwrite", "old.tif"}), mEnv);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(test::decodeTiff(mScratch.path() / "old.tif").value_or(test::Picture{}).width, 150u);
}

TEST_F(ScanTool, APathTooLongForAFileTransferGoesThroughMemoryUnlessFileWasAsked)
{
    fs::path deep = mScratch.path() / std::string(120, 'd') / std::string(120, 'e');
    fs::create_directories(deep);
    std::string output = (deep / "page.tif").string();
    test::ToolRun asked = test::runTool(mScratch.path(), with(kSmall, {"--xfer", "file", output}), mEnv);
    EXPECT_EQ(asked.exitCode, kUsage) << asked.err;
    EXPECT_NE(asked.err.find("too long"), std::string::npos) << asked.err;
    test::ToolRun byDefault = test::runTool(mScratch.path(), with(kSmall, {output}), mEnv);
    EXPECT_EQ(byDefault.exitCode, 0) << byDefault.err;
    EXPECT_EQ(test::decodeTiff(output).value_or(test::Picture{}).width, 150u);
}

TEST_F(ScanTool, ScannerFaultsEndWithADeviceErrorAndNoFile)
{
    struct Case {
        const char* fault;
        const char* says;
    } cases[] = {
        // One fault of each kind; every fault at every point is the fault
        // matrix's, through the loaded data source.
        {"lock-refused", "The scanner is not available."},
        {"settings-length", "The scanner is not available."},
        {"short-data@40", "stopped sending"},
        {"disconnect@40", "stopped sending"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault);
        std::vector<std::string> args = {"--device", std::string("emulator:rows=8,fault=") + c.fault,
                                         "--resolution", "150", "--area", "0,0,1,1", "out.tif"};
        test::ToolRun run = test::runTool(mScratch.path(), args, mEnv);
        EXPECT_EQ(run.exitCode, kDevice) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        EXPECT_EQ(test::strayFiles(mScratch.path()), std::vector<std::string>{});
    }
    // A job without its end marker still delivers the rows it sent.
    test::ToolRun run = test::runTool(mScratch.path(), with(kSmall, {"--device", "emulator:fault=no-image-end", "x.jpg"}), mEnv);
    EXPECT_EQ(run.exitCode, 0) << run.err;
}

TEST_F(ScanTool, CancellingLeavesNoFileBehind)
{
    fs::path tmp = mScratch.path() / "tmp";
    fs::create_directory(tmp);
    std::vector<std::string> env = with(mEnv, {"TMPDIR=" + tmp.string()});
    test::ToolRun dialog = test::runTool(mScratch.path(), with(kSmall, {"--ui", "out.tif"}),
                                         with(env, {"ZENTARY_UI=headless-cancel"}));
    EXPECT_EQ(dialog.exitCode, kCancelled) << dialog.err;
    EXPECT_NE(dialog.err.find("cancelled"), std::string::npos);
    EXPECT_EQ(test::strayFiles(mScratch.path(), {"tmp"}), std::vector<std::string>{});
    EXPECT_EQ(test::strayFiles(tmp), std::vector<std::string>{}) << "raw scan or work folder left";
}

TEST_F(ScanTool, InstalledToolFindsItsDataSource)
{
    const char* cmake = std::getenv("ZENTARY_CMAKE");
    ASSERT_TRUE(cmake);
    fs::path prefix = mScratch.path() / "prefix";
    std::string command = std::string(cmake) + " --install '" + test::buildDir().string() + "' --prefix '" +
                          prefix.string() + "' >/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    EXPECT_TRUE(fs::exists(prefix / "lib/twain/tarvell/ZentaryQ305.ds"));
    EXPECT_TRUE(fs::exists(prefix / "lib/twain/tarvell/ZentaryQ305.bundle/Info.plist"));
    std::ifstream rule(prefix / "lib/udev/rules.d/70-zentary-q305.rules");
    std::string rules(std::istreambuf_iterator<char>(rule), {});
    EXPECT_NE(rules.find("ATTR{idVendor}==\"2e5d\", ATTR{idProduct}==\"4a21\", TAG+=\"uaccess\""), std::string::npos);

    // The installed tool, run from elsewhere, loads the installed .ds.
    std::string installed = (prefix / "bin/zentary-scan").string();
    test::ToolRun run = test::runTool(mScratch.path(), with(kSmall, {"out.tif"}),
                                      with(mEnv, {"ZENTARY_SCAN_TOOL=" + installed}));
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(test::decodeTiff(mScratch.path() / "out.tif").value_or(test::Picture{}).width, 150u);
}

}  // namespace
}  // namespace zentary
