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
                      const std::vector<std::string>& wrapper = {})
    {
        // The source's own free-space check would refuse a scan that then fills the folder.
        return test::runTool(mScratch.path(), {"--area", area, "--xfer", "native", "out.jpg"},
                             {"XDG_CONFIG_HOME=" + mScratch.path().string(), "TMPDIR=" + mTmp.string(),
                              "ZENTARY_FAKE_FREE_SPACE=1000000000",
                              "ZENTARY_SCANNER=emulator:lockfile=" + (mScratch.path() / "locked").string() + scanner},
                             signals, wrapper);
    }
};

TEST_F(ScanToolStops, BySignalsOrStorageItSaysWhyAndLeavesNothing)
{
    const std::string tmp = mTmp.string();
    const char *scan = "Scanning...", *transfer = "Transferring...";
    // A full or read-only folder is a tmpfs mounted in a user namespace.
    auto mounted = [&](const char* options) {
        return std::vector<std::string>{"unshare", "-Urm", "sh", "-c",
                                        std::string("mount -t tmpfs -o ") + options + " tmpfs $0 && exec \"$@\"", tmp};
    };
    bool namespaces = test::runTool(mScratch.path(), {"--version"}, {}, {}, mounted("size=1m")).exitCode == 0;
    struct Case {
        const char* phase;         // signals (0.2 s apart) follow its announcement
        std::vector<int> signals;
        const char* mount;         // or the tool's own temporary folder
        int exitCode;
        std::string says;
    } cases[] = {
        {scan, {SIGINT}, nullptr, 130, "stopped by SIGINT"},
        {scan, {SIGTERM}, nullptr, 143, "stopped by SIGTERM"},
        {scan, {SIGHUP}, nullptr, 129, "stopped by SIGHUP"},
        {scan, {SIGPIPE}, nullptr, 141, "stopped by SIGPIPE"},
        {scan, {SIGINT, SIGINT}, nullptr, 130, "stopped by SIGINT"},
        {transfer, {SIGINT}, nullptr, 130, "stopped by SIGINT"},
        {transfer, {SIGTERM}, nullptr, 143, "stopped by SIGTERM"},
        {transfer, {SIGHUP}, nullptr, 129, "stopped by SIGHUP"},
        {transfer, {SIGPIPE}, nullptr, 141, "stopped by SIGPIPE"},
        {transfer, {SIGINT, SIGINT}, nullptr, 130, "stopped by SIGINT"},
        {nullptr, {}, "ro", 1, "cannot make a temporary folder in " + tmp + ": Read-only file system"},
        {nullptr, {}, "size=1m", 1, "the temporary folder " + tmp + " is full: 1.0 MB free, the scan needs 5.8 MB"},
        // The work folder and the interface log take the last inodes: no raw file.
        {nullptr, {}, "nr_inodes=3", 1, "cannot write in the temporary folder " + tmp + ": No space left on device"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.says + (c.phase ? std::string(" while ") + c.phase : std::string(" ") + c.mount));
        if (c.mount && !namespaces) continue;  // no user namespace to mount a file system in
        // A slowed scanner makes the scan last seconds; a whole page takes a while to convert.
        bool slow = c.phase == scan;
        test::Signals signals{c.phase ? c.phase : "", {}};
        for (std::size_t i = 0; i < c.signals.size(); ++i)
            signals.sent.emplace_back((slow ? 300 : 0) + int(i) * 200, c.signals[i]);
        test::ToolRun result = run(slow ? ",mbps=4,rows=16" : "", c.phase == transfer ? "letter" : "0,0,4,4", signals,
                                   c.mount ? mounted(c.mount) : std::vector<std::string>{});
        EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
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

}  // namespace
}  // namespace zentary
