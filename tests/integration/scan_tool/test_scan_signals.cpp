// zentary-scan stopped from outside, by a signal or by a temporary folder
// that cannot hold the scan: it says why, exits with its own code and leaves
// nothing behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>

#include "ToolRunner.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

namespace fs = std::filesystem;

class ScanToolStops : public ::testing::Test {
protected:
    test::ScratchDir mScratch;
    fs::path mTmp = mScratch.path() / "tmp";
    ScanToolStops() { fs::create_directory(mTmp); }
    // No --device: ZENTARY_SCANNER chooses the scanner.
    test::ToolRun run(const std::string& scanner, const std::string& area, test::Signals signals = {},
                      const std::vector<std::string>& wrapper = {}, const fs::path& tmp = {})
    {
        return test::runTool(mScratch.path(), {"--area", area, "--xfer", "native", "out.jpg"},
                             {"XDG_CONFIG_HOME=" + mScratch.path().string(),
                              "TMPDIR=" + (tmp.empty() ? mTmp : tmp).string(), "ZENTARY_FAKE_FREE_SPACE=1000000000",
                              "ZENTARY_SCANNER=emulator:lockfile=" + (mScratch.path() / "locked").string() + scanner},
                             signals, wrapper);
    }
};

TEST_F(ScanToolStops, EverySignalInEveryPhaseCleansUpAndExitsWith128PlusItsNumber)
{
    struct Stop {
        std::vector<int> signals;  // 0.2 s apart
        int exitCode;
    } stops[] = {{{SIGINT}, 130}, {{SIGTERM}, 143}, {{SIGHUP}, 129}, {{SIGPIPE}, 141}, {{SIGINT, SIGINT}, 130}};
    for (const char* phase : {"Scanning...", "Transferring..."})
        for (const Stop& stop : stops) {
            SCOPED_TRACE(std::string(phase) + " " + strsignal(stop.signals[0]) + " x" +
                         std::to_string(stop.signals.size()));
            // A slowed scanner makes the scan last seconds; a whole page takes a while to convert.
            bool scanning = phase[0] == 'S';
            test::Signals signals{phase, {}};
            for (std::size_t i = 0; i < stop.signals.size(); ++i)
                signals.sent.emplace_back((scanning ? 300 : 0) + int(i) * 200, stop.signals[i]);
            test::ToolRun result = run(scanning ? ",mbps=4,rows=16" : "", scanning ? "0,0,4,4" : "letter", signals);
            EXPECT_EQ(result.exitCode, stop.exitCode) << result.err;
            EXPECT_EQ(result.err.find("no Zentary Q305 on USB"), std::string::npos) << result.err;
            EXPECT_EQ(test::strayFiles(mScratch.path(), {"tmp"}), std::vector<std::string>{}) << "output or lock";
            EXPECT_EQ(test::strayFiles(mTmp), std::vector<std::string>{}) << "raw scan or work folder";
        }
}

TEST_F(ScanToolStops, TheNextRunRemovesTheFolderOfAKilledRunButNotOfALiveOne)
{
    fs::create_directories(mTmp / "zentary-scan-live00" / "scan");
    int live = open((mTmp / "zentary-scan-live00").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(live, LOCK_EX), 0);
    EXPECT_EQ(run(",mbps=4,rows=16", "0,0,4,4", {"Scanning...", {{300, SIGKILL}}}).exitCode, 128 + SIGKILL);
    EXPECT_EQ(test::strayFiles(mTmp).size(), 2u);
    EXPECT_EQ(run("", "0,0,1,1").exitCode, 0);
    close(live);
    EXPECT_EQ(test::strayFiles(mTmp), std::vector<std::string>{"zentary-scan-live00"});
    EXPECT_TRUE(fs::exists(mTmp / "zentary-scan-live00" / "scan"));
}

// A full or read-only folder is a tmpfs mounted in a user namespace.
TEST_F(ScanToolStops, StorageProblemsNameTheTemporaryFolder)
{
    std::string tmp = mTmp.string();
    struct Case {
        const char* mount;
        std::string says;
    } cases[] = {
        {nullptr, "cannot make a temporary folder in " + tmp + "/gone: No such file or directory"},
        {"ro", "cannot make a temporary folder in " + tmp + ": Read-only file system"},
        {"size=1m", "the temporary folder " + tmp + " is full: 1.0 MB free, the scan needs 5.8 MB"},
        // The work folder and the interface log take the last inodes: no raw file.
        {"nr_inodes=3", "cannot write in the temporary folder " + tmp + ": No space left on device"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mount ? c.mount : "missing");
        std::vector<std::string> wrapper;
        if (c.mount)
            wrapper = {"unshare", "-Urm", "sh", "-c", std::string("mount -t tmpfs -o ") + c.mount + " tmpfs $0 && exec \"$@\"",
                       tmp};
        if (c.mount && test::runTool(mScratch.path(), {"--version"}, {}, {}, wrapper).exitCode != 0)
            GTEST_SKIP() << "no user namespace to mount a file system in";
        test::ToolRun result = run("", "0,0,4,4", {}, wrapper, c.mount ? mTmp : mTmp / "gone");
        EXPECT_EQ(result.exitCode, 1) << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
        EXPECT_EQ(test::strayFiles(mScratch.path(), {"tmp"}), std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace zentary
