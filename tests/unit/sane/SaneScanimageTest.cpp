// Debian's scanimage against the backend, found by the SANE dll loader
// through SANE_CONFIG_DIR (dll.conf) and LD_LIBRARY_PATH, as installed.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "SaneTestSupport.h"

extern char** environ;

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

    // Starts scanimage with `args`, its output into `output`; the pid.
    pid_t spawn(const std::vector<std::string>& args, const std::filesystem::path& output,
                const std::string& scanner = "emulator", const std::filesystem::path& libraryDir = saneDir(),
                const std::filesystem::path& configDir = {})
    {
        std::vector<std::string> env = {
            "SANE_CONFIG_DIR=" + (configDir.empty() ? mScratch.path() : configDir).string(),
            "LD_LIBRARY_PATH=" + libraryDir.string(),
            "ZENTARY_SCANNER=" + scanner,
            "TMPDIR=" + (mScratch.path() / "scans").string(),
            "PATH=/usr/bin:/bin",
        };
        std::vector<std::string> argv = {kScanimage};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> envp, argp;
        for (std::string& e : env) envp.push_back(e.data());
        for (std::string& a : argv) argp.push_back(a.data());
        envp.push_back(nullptr);
        argp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, kScanimage, &actions, nullptr, argp.data(), envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }
    // The exit status, or -1 when it did not end within `limit` (then it is killed).
    static int wait(pid_t pid, std::chrono::seconds limit = std::chrono::seconds(120))
    {
        auto deadline = std::chrono::steady_clock::now() + limit;
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int run(const std::vector<std::string>& args, std::string* output)
    {
        std::filesystem::path out = mScratch.path() / "stdout";
        int status = wait(spawn(args, out));
        std::ifstream file(out, std::ios::binary);
        output->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        return status;
    }
    bool scanDirEmpty() const { return std::filesystem::is_empty(mScratch.path() / "scans"); }

    ScratchDir mScratch;
};

TEST_F(SaneScanimageTest, ListsTheDeviceAndEveryOption)
{
    std::string output;
    ASSERT_EQ(run({"-L"}, &output), 0);
    EXPECT_NE(output.find("`zentary:emulator'"), std::string::npos) << output;
    ASSERT_EQ(run({"-d", "zentary:emulator", "-A"}, &output), 0);
    for (const char* option : {"--mode Gray|Color [Color]", "--resolution 150|300|600|1200dpi [300]", "--preview",
                               "-l 0..215.9mm", "-t 0..297.18mm", "-x 0..215.9mm", "-y 0..297.18mm"})
        EXPECT_NE(output.find(option), std::string::npos) << option << "\n" << output;
}

TEST_F(SaneScanimageTest, TiffIsTheChart)
{
    struct Case {
        std::vector<std::string> args;
        bool gray;
        std::uint32_t dpi;
        Area area;
    } cases[] = {
        {{"--mode", "Color", "--resolution", "300"}, false, 300, {0, 0, 215.9, 297.18}},
        {{"--mode", "Gray", "--resolution", "150", "-l", "25.4", "-t", "50.8", "-x", "76.2", "-y", "25.4"},
         true, 150, {25.4, 50.8, 101.6, 76.2}},
        // Values off the scanner's grid or past the glass are constrained, not refused.
        {{"--mode", "gray", "--resolution", "200", "-l", "-5", "-t", "-5", "-x", "0.1", "-y", "0.1"},
         true, 150, {0, 0, 0.254, 0.254}},
        {{"--mode", "col", "--resolution", "600", "-l", "200", "-t", "280", "-x", "300"},
         false, 600, {199.898, 279.908, 215.9, 297.18}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"-d", "zentary:emulator", "--format=tiff"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::filesystem::path out = mScratch.path() / "out.tiff";
        ASSERT_EQ(wait(spawn(args, out)), 0);
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
    std::filesystem::path out = mScratch.path() / "out.pnm";
    pid_t pid = spawn({"-d", "zentary:emulator", "--resolution", "600"}, out, "emulator:mbps=4");
    // Interrupt once the page is under way.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::filesystem::file_size(out) < 100000 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_GE(std::filesystem::file_size(out), 100000u);
    kill(pid, SIGINT);
    EXPECT_NE(wait(pid, std::chrono::seconds(30)), -1) << "scanimage did not end after SIGINT";
    EXPECT_LT(std::filesystem::file_size(out), 600u * 600u * 4u * 8u);  // far from the whole page
    EXPECT_TRUE(scanDirEmpty());
}

}  // namespace
}  // namespace zentary::test
