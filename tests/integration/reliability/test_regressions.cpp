// Defects the reliability runs found, each replayed in the shortest form
// that showed it.
#include "Reliability.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

namespace zentary::reliability {
namespace {

class Regressions : public CleanRoom {
protected:
    std::vector<std::string> rawFiles() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(mTemp.path()))
            if (entry.path().extension() == ".raw") names.push_back(entry.path().filename());
        return names;
    }
};

// Found by the client fuzzer (seed 20240531): the scan has ended but the
// transfer is not yet announced (that waits 0.25 s) when the client disables
// and enables again. The first scan's raw file must not be orphaned, and its
// announcement must not put the new session into the transfer state.
TEST_F(Regressions, ReenablingBeforeTheTransferIsAnnouncedOrphansNothing)
{
    test::ScopedEnv scanner("ZENTARY_SCANNER", this->scanner("mbps=1"));  // about 0.1 s a scan
    auto source = openSmall();
    ASSERT_TRUE(source);
    ASSERT_EQ(test::enable(*source, false), TWRC_SUCCESS);
    // The scan has ended once the scanner is reserved no more.
    bool locked = false;
    for (int i = 0; i < 2000; ++i) {
        bool now = std::filesystem::exists(lockFile());
        if (locked && !now) break;
        locked = locked || now;
        std::this_thread::sleep_for(1ms);
    }
    // Every suite here trusts the lock file to show a scanner left reserved.
    EXPECT_TRUE(locked) << "the emulator's lock file never appeared";
    ASSERT_EQ(test::disable(*source), TWRC_SUCCESS);
    ASSERT_EQ(test::enable(*source, false), TWRC_SUCCESS);
    std::this_thread::sleep_for(100ms);
    EXPECT_NE(probeState(*source), 6) << "the old scan's announcement reached the new session";
    EXPECT_EQ(source->waitForMessage(10s), std::optional<TW_UINT16>(MSG_XFERREADY));
    EXPECT_EQ(test::pending(*source, MSG_RESET), TWRC_SUCCESS);
    EXPECT_EQ(test::disable(*source), TWRC_SUCCESS);
    EXPECT_EQ(source->close(), TWRC_SUCCESS);
    EXPECT_EQ(rawFiles(), std::vector<std::string>{});
}

// Found with a client that aborts on native transfers: each crash left its
// scan in the temporary folder for good. Opening the source removes the
// scans nobody holds, and only those.
TEST_F(Regressions, OpeningRemovesRawFilesOfDeadClientsOnly)
{
    // A client in another process, in the middle of its transfer. Forked
    // while this process has no other thread, so that it may load the source.
    ASSERT_EQ(test::threadCount(), 1);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t client = fork();
    if (client == 0) {
        auto source = openSmall();
        std::vector<std::uint8_t> buffer(65536);
        TW_IMAGEMEMXFER strip{};
        strip.Memory = {TWMF_APPOWNS | TWMF_POINTER, TW_UINT32(buffer.size()), buffer.data()};
        if (source && test::enable(*source, false) == TWRC_SUCCESS && source->waitForMessage(20s) &&
            source->call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip) == TWRC_SUCCESS && write(ready[1], "", 1) == 1)
            pause();
        _exit(1);
    }
    close(ready[1]);
    pollfd transferring{ready[0], POLLIN, 0};
    ASSERT_EQ(poll(&transferring, 1, 30000), 1);
    std::vector<std::string> held = rawFiles();
    ASSERT_EQ(held.size(), 1u);

    // Kept too: a file whose creator has yet to lock it, and a symlink.
    std::ofstream(mTemp.path() / "Image_2020_01_02_03_04_05.raw") << "left by a client that died";
    std::ofstream(mTemp.path() / "Image_newborn.raw");
    std::filesystem::create_symlink(mUser.path() / "precious", mTemp.path() / "Image_link.raw");
    std::ofstream(mUser.path() / "precious") << "not a scan";
    auto openAndClose = [this] {
        auto source = load();
        EXPECT_TRUE(source && source->open() == TWRC_SUCCESS && source->close() == TWRC_SUCCESS);
    };
    openAndClose();
    std::vector<std::string> left = rawFiles(), kept = {held[0], "Image_link.raw", "Image_newborn.raw"};
    std::sort(left.begin(), left.end());
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ(left, kept);
    EXPECT_TRUE(std::filesystem::exists(mUser.path() / "precious"));

    kill(client, SIGKILL);
    waitpid(client, nullptr, 0);
    close(ready[0]);
    openAndClose();
    EXPECT_FALSE(std::filesystem::exists(mTemp.path() / held[0])) << "the killed client's scan is still there";
}

// Found by a black-box client under ASan: a client may close the source from
// inside either callback, on whatever thread it comes (Image Capture gets it
// on the source's own loop thread, every other client from the messenger).
// Closing inside MSG_XFERREADY once went on using the freed engine; closing
// inside MSG_CLOSEDSREQ while MSG_ENABLEDS was still returning once made the
// loop thread join itself. Both race: many rounds. Each client kind is a
// ctest entry of its own, since the rounds mostly wait out the scan cycle's
// fixed delays.
class ClosingFromACallback : public Regressions, public ::testing::WithParamInterface<const char*> {};

TEST_P(ClosingFromACallback, EndsTheSessionCleanly)
{
    constexpr int kRounds = 50;
    struct Case {
        TW_UINT16 message;
        const char* ui;  // the dialog presses Scan at once, or Cancel
    } cases[] = {{MSG_XFERREADY, "headless"}, {MSG_CLOSEDSREQ, "headless-cancel"}};
    test::ScopedEnv scanner("ZENTARY_SCANNER", this->scanner(""));
    auto source = load();
    ASSERT_TRUE(source);
    std::strncpy(source->application().Manufacturer, GetParam(), 33);
    DataSourceManager* raw = source.get();
    for (const Case& c : cases) {
        test::ScopedEnv ui("ZENTARY_UI", c.ui);
        std::atomic<int> closes{0};
        source->onMessage = [&c, &closes, raw](TW_UINT16 message) {
            if (message == c.message && raw->close() == TWRC_SUCCESS) ++closes;
            return TWRC_SUCCESS;
        };
        for (int round = 0; round < kRounds; ++round) {
            SCOPED_TRACE("message " + std::to_string(c.message) + ", round " + std::to_string(round));
            Watchdog watchdog("closing from a callback", 30s);
            openSmall(*source);
            ASSERT_EQ(test::enable(*source, true), TWRC_SUCCESS);
            ASSERT_EQ(source->waitForMessage(20s), std::optional<TW_UINT16>(c.message));
            ASSERT_EQ(closes.load(), round + 1);
            ASSERT_EQ(probeState(*source), 3);
            ASSERT_EQ(rawFiles(), std::vector<std::string>{});
            ASSERT_FALSE(std::filesystem::exists(lockFile())) << "the scanner was left reserved";
        }
        source->onMessage = nullptr;
    }
}

INSTANTIATE_TEST_SUITE_P(Clients, ClosingFromACallback, ::testing::Values("Apple Computer, Inc.", "Tarvell Co."),
                         [](const ::testing::TestParamInfo<const char*>& client) {
                             return std::string(client.param[0] == 'A' ? "OnTheLoopThread" : "FromTheMessenger");
                         });

}  // namespace
}  // namespace zentary::reliability
