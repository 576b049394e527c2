// Many cycles in one process: open and close, whole acquisitions, loading
// and unloading the library, and two client threads at once. At the end the
// process holds what it held at the start. The counts can be raised with
// ZENTARY_STRESS_SCALE (a multiplier) for a long run; CI runs 50
// acquisitions, ZENTARY_STRESS_SCALE=2 the full hundred.
#include "Reliability.h"

namespace zentary::reliability {
namespace {

int scaled(int count)
{
    const char* scale = std::getenv("ZENTARY_STRESS_SCALE");
    return count * (scale && *scale ? std::max(1, std::atoi(scale)) : 1);
}

class Stress : public CleanRoom {};

TEST_F(Stress, OpenCloseAcquireAndReloadLeaveNothingBehind)
{
    test::ScopedEnv scanner("ZENTARY_SCANNER", this->scanner(""));
    const Resources before = resources();
    {
        Watchdog watchdog("open and close", 120s);
        auto source = load();
        ASSERT_TRUE(source);
        for (int i = 0; i < scaled(1000); ++i) {
            ASSERT_EQ(source->open(), TWRC_SUCCESS) << "cycle " << i;
            ASSERT_EQ(source->close(), TWRC_SUCCESS) << "cycle " << i;
        }
    }
    EXPECT_EQ(settledResources(before), before) << "after open/close cycles";
    {
        Watchdog watchdog("acquisitions", 300s);
        auto source = openSmall();
        ASSERT_TRUE(source);
        static const TW_UINT16 kMechanisms[] = {TWSX_NATIVE, TWSX_MEMORY};
        for (int i = 0; i < scaled(50); ++i) {
            SCOPED_TRACE("acquisition " + std::to_string(i));
            ASSERT_EQ(test::setOneValue(*source, ICAP_XFERMECH, TWTY_UINT16, kMechanisms[i % 2]), TWRC_SUCCESS);
            ASSERT_EQ(test::enable(*source, false), TWRC_SUCCESS);
            ASSERT_EQ(source->waitForMessage(20s), std::optional<TW_UINT16>(MSG_XFERREADY));
            if (i % 2 == 0) {
                TW_HANDLE handle = nullptr;
                ASSERT_EQ(source->call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle), TWRC_XFERDONE);
                std::free(handle);
            } else {
                TW_SETUPMEMXFER sizes{};
                ASSERT_EQ(source->call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes), TWRC_SUCCESS);
                std::vector<std::uint8_t> buffer(sizes.MaxBufSize);
                TW_IMAGEMEMXFER block{};
                block.Memory = {TWMF_APPOWNS | TWMF_POINTER, TW_UINT32(buffer.size()), buffer.data()};
                ASSERT_EQ(source->call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &block), TWRC_XFERDONE);
                ASSERT_EQ(test::value(block.Rows), kRows);
            }
            ASSERT_EQ(test::pending(*source, MSG_ENDXFER), TWRC_SUCCESS);
            ASSERT_EQ(test::disable(*source), TWRC_SUCCESS);
            ASSERT_EQ(entryCount(mTemp.path()), 0);
        }
        EXPECT_FALSE(std::filesystem::exists(lockFile()));
    }
    EXPECT_EQ(settledResources(before), before) << "after acquisitions";
    {
        Watchdog watchdog("load and unload", 120s);
        for (int i = 0; i < scaled(100); ++i) {
            auto source = load();
            ASSERT_TRUE(source);
            ASSERT_EQ(source->getIdentity(), TWRC_SUCCESS);
            ASSERT_STREQ(source->source().ProductName, "Tarvell Zentary Q305 MFP");
            if (i % 10 == 0) {
                ASSERT_EQ(source->open(), TWRC_SUCCESS);  // unloaded while open: a careless client
            }
            source->closeOnDestroy = i % 20 != 0;
        }
    }
    EXPECT_EQ(settledResources(before), before) << "after loading and unloading";
}

// Two threads of one client call at once; the source serialises them.
TEST_F(Stress, TwoClientThreadsCallAtOnce)
{
    test::ScopedEnv scanner("ZENTARY_SCANNER", this->scanner(""));
    const Resources before = resources();
    {
        Watchdog watchdog("two client threads", 120s);
        auto source = openSmall();
        ASSERT_TRUE(source);
        std::atomic<int> impossible{0};
        auto reader = [&] {
            for (int i = 0; i < scaled(2000); ++i) {
                auto resolution = test::currentOneValue(*source, ICAP_XRESOLUTION);
                if (!resolution) ++impossible;
                TW_UINT32 group = 0;
                if (source->call(DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group) == TWRC_SUCCESS && group != DG_IMAGE)
                    ++impossible;
            }
        };
        std::thread other(reader);
        for (int i = 0; i < scaled(10); ++i) {
            // Enable fails only when the other thread's triplet came first
            // with its own failure; both ways the source stays whole.
            if (test::enable(*source, false) == TWRC_SUCCESS) {
                auto message = source->waitForMessage(20s);
                if (message == std::optional<TW_UINT16>(MSG_XFERREADY)) test::pending(*source, MSG_RESET);
                test::disable(*source);
            }
        }
        reader();
        other.join();
        EXPECT_EQ(impossible, 0);
        EXPECT_EQ(source->close(), TWRC_SUCCESS);
        EXPECT_FALSE(std::filesystem::exists(lockFile()));
    }
    EXPECT_EQ(settledResources(before), before);
    EXPECT_EQ(entryCount(mTemp.path()), 0);
}

}  // namespace
}  // namespace zentary::reliability
