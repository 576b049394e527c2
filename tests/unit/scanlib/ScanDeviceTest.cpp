// The scanner session against the in-process emulator: real library code
// from USBInterface up, the emulator below the transport seam. Pixels and
// injected faults are checked through the loaded data source (transfer
// tests, fault matrix), and so is a client that closes or unloads the source
// mid-scan (the scan cycle test); here, what only the library's caller sees.
#include "ScanlibTestSupport.h"

#include "emulator/EmulatorTransport.h"
#include "scanlib/ScanDevice.h"

#include <cstdlib>

namespace zentary::test {
namespace {

using namespace std::chrono_literals;

class ScanDeviceTest : public ::testing::Test {
protected:
    // Runs `fn` on the engine's loop thread, as the engine would.
    template <typename Fn>
    auto on(Fn fn)
    {
        return callOn(mEngine.loop(), fn);
    }

    void makeDevice(const std::string& options = "")
    {
        EmulatorOptions parsed;
        std::string error;
        ASSERT_TRUE(parseEmulatorOptions(options, &parsed, &error)) << error;
        mModel = std::make_shared<ScannerModel>(parsed);
        on([&] {
            mDevice = ScanDevice::scanDeviceWithUSBDevice(
                kScannerProductID, std::make_unique<USBDevice>(makeEmulatorDevice(mModel)), mCenter);
        });
        ASSERT_TRUE(mDevice);
    }
    void openSession()
    {
        ASSERT_EQ(on([&] { return mDevice->openSession(); }), 0);
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (!on([&] { return mDevice->isSessionOpen(); }) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        ASSERT_TRUE(on([&] { return mDevice->isSessionOpen(); }));
    }
    // Lock, configure and start; returns startScanWithCrop's result.
    int start(ScanRect crop, int color = kColorTypeGray, int dpi = 150)
    {
        return on([&] {
            if (int r = mDevice->lockScanner()) return r;
            mDevice->setColorType(color);
            mDevice->setResolution(dpi);
            mDevice->setOutputFile(mPath);
            return mDevice->startScanWithCrop(crop);
        });
    }
    void TearDown() override
    {
        on([&] {
            if (mDevice) mDevice->closeSession();
            mDevice.reset();
        });
        ::unlink(mPath.c_str());
    }

    LoopThread mEngine{"engine"};
    NotificationCenter mCenter;
    NotificationLog mLog{mCenter};
    std::shared_ptr<ScannerModel> mModel;
    std::unique_ptr<ScanDevice> mDevice;
    std::string mPath = tempRawPath("device");
};

TEST_F(ScanDeviceTest, SettingsCarryTheCropInHundredths)
{
    makeDevice();
    openSession();
    ASSERT_EQ(start({0.5f, 1.0f, 2.25f, 3.0f}), 0);
    auto f = mModel->settings().fields;
    EXPECT_EQ(std::tuple(f[kSettingsAreaTop], f[kSettingsAreaLeft], f[kSettingsAreaBottom], f[kSettingsAreaRight],
                         f[kSettingsScanMode], f[kSettingsColorFlag]),
              std::tuple(100u, 50u, 400u, 275u, std::uint32_t(kScanModeGray), 0u));
    ASSERT_EQ(mLog.wait(), "ScanCompletedNotification");
    ::unlink(mPath.c_str());  // raw files are never overwritten
    ASSERT_EQ(on([&] { return mDevice->startScanWithCrop({0.333f, 0, 1, 1}); }), 0);
    EXPECT_EQ(mModel->settings().fields[kSettingsAreaLeft], 33u);
}

TEST_F(ScanDeviceTest, LockingAndRefusals)
{
    makeDevice();
    EXPECT_EQ(on([&] { return mDevice->lockScanner(); }), kScanLibErrNotOpen);
    openSession();
    EXPECT_EQ(on([&] { return mDevice->openSession(); }), kScanLibErrGeneric);
    EXPECT_EQ(on([&] { return mDevice->setResolution(75); }), kScanLibErrBadResolution);
    EXPECT_EQ(on([&] { return mDevice->setResolution(600); }), 0);
    // Not locked wins over the missing output file.
    EXPECT_EQ(on([&] { return mDevice->startScanWithCrop({0, 0, 1, 1}); }), kScanLibErrNotLocked);
    EXPECT_EQ(on([&] { return mDevice->lockScanner(); }), 0);
    EXPECT_EQ(on([&] { return mDevice->lockScanner(); }), 0);
    EXPECT_EQ(mModel->commandCount(kScanMsgLock), 1);
    EXPECT_TRUE(mModel->isLocked());
    EXPECT_EQ(on([&] { return mDevice->startScanWithCrop({0, 0, 1, 1}); }), kScanLibErrNotOpen);
    ScanRect full = on([&] { return mDevice->makeFullSizeRect(); });
    EXPECT_EQ(std::pair(full.width, full.height), std::pair(8.5f, 11.7f));
    on([&] { mDevice->unlockScanner(); });
    EXPECT_FALSE(on([&] { return mDevice->isLocked(); }));
    EXPECT_FALSE(mModel->isLocked());
    on([&] { mDevice->stopScan(); });  // idle: nothing is sent
    EXPECT_EQ(mModel->commandCount(kScanMsgCancelScan), 0);
}

TEST_F(ScanDeviceTest, CancelAtEachStage)
{
    // At 1 MB/s a gray inch at 300 dpi (about 0.1 MB a packet) spans many reads.
    struct Case {
        const char* name;
        float progressBeforeCancel;
    } cases[] = {{"before the first packet", 0.0f}, {"in the image", 0.2f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        NotificationLog log(mCenter);
        makeDevice("mbps=1,rows=30");
        openSession();
        ::unlink(mPath.c_str());
        ASSERT_EQ(start({0, 0, 4, 4}, kColorTypeGray, 300), 0);
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (on([&] { return mDevice->scanProgress(); }) < c.progressBeforeCancel &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(2ms);
        EXPECT_EQ(on([&] { return mDevice->startScanWithCrop({0, 0, 1, 1}); }), kScanLibErrBusy);
        on([&] {
            mDevice->stopScan();
            mDevice->stopScan();
        });
        EXPECT_EQ(log.wait(), "ScanAbortedNotification");
        EXPECT_EQ(std::tuple(mModel->commandCount(kScanMsgCancelScan), fileExists(mPath)), std::tuple(1, false));
        EXPECT_EQ(on([&] { return std::pair(mDevice->lastScanError(), mDevice->scanState()); }),
                  std::pair(int(kScanLibErrAborted), int(kScanStateIdle)));
    }
}

TEST(ScanDeviceSelection, EnvironmentChoosesTheTransport)
{
    struct Case {
        const char* value;
        std::optional<std::string> serial;
        std::int32_t pid;
        bool found;
    } cases[] = {
        {"emulator", std::nullopt, kScannerProductID, true},
        {"emulator:serial=A1,mbps=40", std::string("A1"), kScannerProductID, true},
        {"emulator:serial=A1", std::string("B2"), kScannerProductID, false},
        {"emulator:bogus=1", std::nullopt, kScannerProductID, false},
        {"emulatorX", std::nullopt, kScannerProductID, false},
        {"emulator", std::nullopt, 0x4A22, false},
    };
    for (const auto& c : cases) {
        ::setenv("ZENTARY_SCANNER", c.value, 1);
        EXPECT_EQ(ScanDevice::scanDeviceWithVID(kScannerVendorID, c.pid, c.serial) != nullptr, c.found) << c.value;
    }
    ::unsetenv("ZENTARY_SCANNER");
}

}  // namespace
}  // namespace zentary::test
