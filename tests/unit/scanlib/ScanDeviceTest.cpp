// The scanner session against the in-process emulator: real library code
// from USBInterface up, the emulator below the transport seam.
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

TEST_F(ScanDeviceTest, ScansMatchTheChartInColourAndGray)
{
    makeDevice("rows=7");  // many packets, a last one that is not full
    openSession();
    struct Case {
        int color;
        int dpi;
        ScanRect crop;
    } cases[] = {{kColorTypeGray, 150, {0.5f, 3.6f, 2.25f, 1.0f}},
                 {kColorTypeColor, 300, {3.9f, 0.1f, 1.13f, 0.6f}},
                 {kColorTypeColor, 150, {0.0f, 7.5f, 8.5f, 0.3f}}};
    for (const auto& c : cases) {
        NotificationLog log(mCenter);
        ::unlink(mPath.c_str());
        ASSERT_EQ(start(c.crop, c.color, c.dpi), 0);
        ASSERT_EQ(log.wait(), "ScanCompletedNotification");
        auto area = mModel->settings().fields;
        auto pixels = [&](std::uint32_t hundredths) { return std::uint32_t(float(hundredths) / 100.0f * float(c.dpi)); };
        expectChartScan(mPath, c.color == kColorTypeColor, std::uint32_t(c.dpi), area[kSettingsAreaLeft],
                        area[kSettingsAreaTop], pixels(area[kSettingsAreaRight] - area[kSettingsAreaLeft]),
                        pixels(area[kSettingsAreaBottom] - area[kSettingsAreaTop]));
        EXPECT_FLOAT_EQ(on([&] { return mDevice->scanProgress(); }), 1.0f);
    }
    EXPECT_EQ(mLog.count(), 3u);
}

TEST_F(ScanDeviceTest, SettingsCarryTheCropInHundredths)
{
    makeDevice();
    openSession();
    ASSERT_EQ(start({0.5f, 1.0f, 2.25f, 3.0f}), 0);
    auto f = mModel->settings().fields;
    EXPECT_EQ(f[kSettingsAreaTop], 100u);
    EXPECT_EQ(f[kSettingsAreaLeft], 50u);
    EXPECT_EQ(f[kSettingsAreaBottom], 400u);
    EXPECT_EQ(f[kSettingsAreaRight], 275u);
    EXPECT_EQ(f[kSettingsScanMode], kScanModeGray);
    EXPECT_EQ(f[kSettingsColorFlag], 0u);
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
    EXPECT_FLOAT_EQ(full.width, 8.5f);
    EXPECT_FLOAT_EQ(full.height, 11.7f);
    on([&] { mDevice->unlockScanner(); });
    EXPECT_FALSE(on([&] { return mDevice->isLocked(); }));
    EXPECT_FALSE(mModel->isLocked());
    on([&] { mDevice->stopScan(); });  // idle: nothing is sent
    EXPECT_EQ(mModel->commandCount(kScanMsgCancelScan), 0);
}

// Every fault the emulator can inject, and how the library ends up.
TEST_F(ScanDeviceTest, EmulatorFaults)
{
    struct Case {
        const char* options;
        int lock;     // lockScanner
        int start;    // startScanWithCrop
        const char* notification;
        int error;    // scanDone's code
        int cause;    // the first error of the job
        int unlocks;  // unlock packets the scanner received
    } cases[] = {
        {"fault=lock-refused", kScanLibErrBusy, kScanLibErrNotLocked, "", 0, 0, 0},
        {"fault=not-ready@1", 0, kScanLibErrGeneric, "", 0, 0, 1},
        {"fault=settings-length@120", 0, kScanLibErrRead, "", 0, 0, 1},
        // The rest of the bad packet is still in the pipe after the cancel, so
        // the next header read fails too and ends the job as a read error.
        {"fault=bad-signature@20", 0, 0, "ScanAbortedNotification", kScanLibErrRead, kScanLibErrRead, 1},
        {"fault=short-data@20", 0, 0, "ScanAbortedNotification", kScanLibErrAborted, kScanLibErrRead, 1},
        {"fault=malformed-data@20", 0, 0, "ScanAbortedNotification", kScanLibErrAborted, kScanLibErrRead, 1},
        {"fault=stall@20", 0, 0, "ScanAbortedNotification", kScanLibErrRead, kScanLibErrRead, 1},
        {"fault=timeout@20", 0, 0, "ScanAbortedNotification", kScanLibErrTimeout, kScanLibErrTimeout, 1},
        {"fault=disconnect@20", 0, 0, "ScanAbortedNotification", kScanLibErrDeviceNotFound, kScanLibErrDeviceNotFound, 0},
        {"fault=no-image-end", 0, 0, "ScanCompletedNotification", 0, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        NotificationLog log(mCenter);
        makeDevice(std::string("rows=8,") + c.options);
        openSession();
        ::unlink(mPath.c_str());
        EXPECT_EQ(on([&] { return mDevice->lockScanner(); }), c.lock);
        int started = on([&] {
            mDevice->setColorType(kColorTypeGray);
            mDevice->setOutputFile(mPath);
            return mDevice->startScanWithCrop({1, 1, 1, 0.5f});
        });
        EXPECT_EQ(started, c.start);
        EXPECT_EQ(log.wait(started == 0 ? 20s : 50ms), c.notification);
        if (started == 0) {
            EXPECT_EQ(on([&] { return mDevice->lastScanError(); }), c.error);
            EXPECT_EQ(on([&] { return mDevice->lastScanCause(); }), c.cause);
            // A scan's file is complete or gone.
            EXPECT_EQ(fileExists(mPath), c.error == 0);
            if (c.error == 0) expectChartScan(mPath, false, 300, 100, 100, 300, 150);
        }
        on([&] { mDevice->closeSession(); });
        EXPECT_EQ(mModel->commandCount(kScanMsgUnlock), c.unlocks);
    }
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
        EXPECT_EQ(mModel->commandCount(kScanMsgCancelScan), 1);
        EXPECT_EQ(on([&] { return mDevice->lastScanError(); }), kScanLibErrAborted);
        EXPECT_FALSE(fileExists(mPath));
        EXPECT_EQ(on([&] { return mDevice->scanState(); }), kScanStateIdle);
    }
}

TEST_F(ScanDeviceTest, CloseDuringScanEndsCleanly)
{
    makeDevice("mbps=1,rows=30");
    openSession();
    ASSERT_EQ(start({0, 0, 8, 8}, kColorTypeColor, 300), 0);
    std::this_thread::sleep_for(30ms);
    auto begin = std::chrono::steady_clock::now();
    on([&] { mDevice->closeSession(); });
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    EXPECT_EQ(mLog.wait(), "ScanAbortedNotification");
    EXPECT_FALSE(mModel->isLocked());
    EXPECT_FALSE(mModel->isScanning());
    EXPECT_FALSE(fileExists(mPath));
    EXPECT_FALSE(on([&] { return mDevice->isSessionOpen(); }));
    // A new session on the same device scans again.
    openSession();
    ASSERT_EQ(start({0, 0, 0.5f, 0.5f}), 0);
    EXPECT_EQ(mLog.wait(), "ScanAbortedNotification");  // the first one still heads the log
}

TEST_F(ScanDeviceTest, DestroyDuringScanLeavesNothing)
{
    makeDevice("mbps=1,rows=30");
    openSession();
    ASSERT_EQ(start({0, 0, 8, 8}, kColorTypeColor, 300), 0);
    on([&] { mDevice.reset(); });
    EXPECT_FALSE(fileExists(mPath));
    EXPECT_EQ(mLog.count(), 0u);
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
