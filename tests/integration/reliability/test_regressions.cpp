// Defects the reliability runs found, each replayed in the shortest form
// that showed it.
#include "Reliability.h"

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

}  // namespace
}  // namespace zentary::reliability
