// zentary-scan stopped from outside: by any of the signals a user or a
// session sends, or by a temporary folder that cannot hold the scan. Either
// way it says why, exits with its own code and leaves nothing behind.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "ToolRunner.h"
#include "support/TestEnvironment.h"

namespace zentary {
namespace {

namespace fs = std::filesystem;

class ScanToolStops : public ::testing::Test {
protected:
    test::ScratchDir mScratch;
    fs::path mTmp = mScratch.path() / "tmp";
    fs::path mLock = mScratch.path() / "scanner.locked";
    ScanToolStops() { fs::create_directory(mTmp); }
    std::vector<std::string> env(const std::string& scanner) const
    {
        return {"XDG_CONFIG_HOME=" + mScratch.path().string(), "TMPDIR=" + mTmp.string(),
                "ZENTARY_SCANNER=emulator:lockfile=" + mLock.string() + scanner};
    }
};

TEST_F(ScanToolStops, EverySignalInEveryPhaseCleansUpAndExitsWith128PlusItsNumber)
{
    struct Phase {
        const char* announced;
        const char* scanner;  // the scan phase is slowed to last seconds
        std::vector<std::string> args;
        int delayMs;
    } phases[] = {
        {"Scanning...", ",mbps=4,rows=16", {"--area", "0,0,4,4", "--xfer", "native", "out.jpg"}, 300},
        // A whole page: its conversion and JPEG encoding take a while.
        {"Transferring...", "", {"--xfer", "native", "out.jpg"}, 0},
    };
    struct Stop {
        std::vector<int> signals;  // 0.2 s apart
        int exitCode;
    } stops[] = {
        {{SIGINT}, 130}, {{SIGTERM}, 143}, {{SIGHUP}, 129}, {{SIGPIPE}, 141}, {{SIGINT, SIGINT}, 130},
    };
    for (const Phase& phase : phases)
        for (const Stop& stop : stops) {
            SCOPED_TRACE(std::string(phase.announced) + " " + strsignal(stop.signals[0]) +
                         (stop.signals.size() > 1 ? " twice" : ""));
            test::Signals signals{phase.announced, {}};
            for (std::size_t i = 0; i < stop.signals.size(); ++i)
                signals.sent.emplace_back(phase.delayMs + int(i) * 200, stop.signals[i]);
            // No --device: the scanner is the one ZENTARY_SCANNER names.
            test::ToolRun run = test::runTool(mScratch.path(), phase.args, env(phase.scanner), signals);
            EXPECT_EQ(run.exitCode, stop.exitCode) << run.err;
            EXPECT_EQ(run.err.find("no Zentary Q305 on USB"), std::string::npos) << run.err;
            EXPECT_EQ(test::strayFiles(mScratch.path(), {"tmp"}), std::vector<std::string>{}) << "output or lock";
            EXPECT_EQ(test::strayFiles(mTmp), std::vector<std::string>{}) << "raw scan or work folder";
        }
}

// SIGKILL leaves the run no chance to clean up: the next run does it, but
// never in the folder of a run that still lives.
TEST_F(ScanToolStops, TheNextRunRemovesTheFolderOfAKilledRunOnly)
{
    test::ToolRun killed = test::runTool(mScratch.path(), {"--area", "0,0,4,4", "out.tif"}, env(",mbps=4,rows=16"),
                                         {"Scanning...", {{300, SIGKILL}}});
    ASSERT_EQ(killed.exitCode, 128 + SIGKILL) << killed.err;
    ASSERT_EQ(test::strayFiles(mTmp).size(), 1u) << "the killed run left no folder: nothing to test";
    fs::path live = mTmp / "zentary-scan-live00";
    fs::create_directory(live);
    std::ofstream(live / "Image_2026_01_01_00_00_00.raw") << "a live run's scan";
    int held = open(live.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    test::ToolRun next = test::runTool(mScratch.path(), {"--list"}, env(""));
    close(held);
    EXPECT_EQ(next.exitCode, 0) << next.err;
    EXPECT_EQ(test::strayFiles(mTmp), std::vector<std::string>{"zentary-scan-live00"});
    EXPECT_TRUE(fs::exists(live / "Image_2026_01_01_00_00_00.raw"));
}

// The folder is a file system of its own, mounted in a user namespace: the
// only way to make one full or read-only without privileges.
TEST_F(ScanToolStops, StorageProblemsNameTheTemporaryFolder)
{
    const std::vector<std::string> scan = {"--area", "0,0,4,4", "out.tif"};  // 5.8 MB of raw scan
    struct Case {
        const char* mount;  // tmpfs options, or none: a folder that is not there
        std::string says;
    } cases[] = {
        {nullptr, "cannot make a temporary folder in " + (mTmp / "gone").string() + ": No such file or directory"},
        {"ro", "cannot make a temporary folder in " + mTmp.string() + ": Read-only file system"},
        {"size=1m", "the temporary folder " + mTmp.string() + " is full"},
        // The work folder and the interface log take the last free inodes.
        {"nr_inodes=3", "cannot write in the temporary folder " + mTmp.string() + ": No space left on device"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mount ? c.mount : "missing");
        std::vector<std::string> wrapper, environment = env("");
        if (!c.mount) {
            environment[1] = "TMPDIR=" + (mTmp / "gone").string();
        } else {
            wrapper = {"unshare", "-Urm", "sh", "-c",
                       std::string("mount -t tmpfs -o ") + c.mount + " tmpfs \"$0\" && exec \"$@\"", mTmp.string()};
            if (test::runTool(mScratch.path(), {"--version"}, {}, {}, wrapper).exitCode != 0)
                GTEST_SKIP() << "no user namespaces to mount a file system in";
        }
        // The source's own free-space check would refuse the scan before it fills the folder.
        environment.push_back("ZENTARY_FAKE_FREE_SPACE=1000000000");
        test::ToolRun run = test::runTool(mScratch.path(), scan, environment, {}, wrapper);
        EXPECT_EQ(run.exitCode, 1) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        EXPECT_EQ(test::strayFiles(mScratch.path(), {"tmp"}), std::vector<std::string>{});
    }
}

}  // namespace
}  // namespace zentary
