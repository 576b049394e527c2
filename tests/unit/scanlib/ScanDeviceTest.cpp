// The scanner session against the in-process emulator: real library code
// from USBInterface up, the emulator below the transport seam. Pixels and
// injected faults are checked through the loaded data source (transfer
// tests, fault matrix), and so is a client that closes or unloads the source
// mid-scan (the scan cycle test); here, what only the library's caller sees.
#include "ScanlibTestSupport.h"

#include "emulator/EmulatorTransport.h"

#include <cstdlib>

namespace zentary::test {
namespace {

using namespace std::chrono_literals;

class ScanDeviceTest : public ::testing::Test, public DeviceSession {
protected:
    void makeDevice(const std::string& options = "")
    {
        EmulatorOptions parsed;
        std::string error;
        ASSERT_TRUE(parseEmulatorOptions(options, &parsed, &error)) << error;
        mModel = std::make_shared<ScannerModel>(parsed);
        on([&] {
            device = ScanDevice::scanDeviceWithUSBDevice(
                kScannerProductID, std::make_unique<USBDevice>(makeEmulatorDevice(mModel)), center);
        });
        ASSERT_TRUE(device);
    }

    std::shared_ptr<ScannerModel> mModel;
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
    ASSERT_EQ(log.wait(), "ScanCompletedNotification");
    ::unlink(path.c_str());  // raw files are never overwritten
    ASSERT_EQ(on([&] { return device->startScanWithCrop({0.333f, 0, 1, 1}); }), 0);
    EXPECT_EQ(mModel->settings().fields[kSettingsAreaLeft], 33u);
}

TEST_F(ScanDeviceTest, LockingAndRefusals)
{
    makeDevice();
    EXPECT_EQ(on([&] { return device->lockScanner(); }), kScanLibErrNotOpen);
    openSession();
    EXPECT_EQ(on([&] { return device->openSession(); }), kScanLibErrGeneric);
    EXPECT_EQ(on([&] { return device->setResolution(75); }), kScanLibErrBadResolution);
    EXPECT_EQ(on([&] { return device->setResolution(600); }), 0);
    // Not locked wins over the missing output file.
    EXPECT_EQ(on([&] { return device->startScanWithCrop({0, 0, 1, 1}); }), kScanLibErrNotLocked);
    EXPECT_EQ(on([&] { return device->lockScanner(); }), 0);
    EXPECT_EQ(on([&] { return device->lockScanner(); }), 0);
    EXPECT_EQ(mModel->commandCount(kScanMsgLock), 1);
    EXPECT_TRUE(mModel->isLocked());
    EXPECT_EQ(on([&] { return device->startScanWithCrop({0, 0, 1, 1}); }), kScanLibErrNotOpen);
    ScanRect full = on([&] { return device->makeFullSizeRect(); });
    EXPECT_EQ(std::pair(full.width, full.height), std::pair(8.5f, 11.7f));
    on([&] { device->unlockScanner(); });
    EXPECT_FALSE(on([&] { return device->isLocked(); }));
    EXPECT_FALSE(mModel->isLocked());
    on([&] { device->stopScan(); });  // idle: nothing is sent
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
        NotificationLog caseLog(center);  // this case's notifications only
        makeDevice("mbps=1,rows=30");
        openSession();
        ::unlink(path.c_str());
        ASSERT_EQ(start({0, 0, 4, 4}, kColorTypeGray, 300), 0);
        auto deadline = std::chrono::steady_clock::now() + 10s;
        while (on([&] { return device->scanProgress(); }) < c.progressBeforeCancel &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(2ms);
        EXPECT_EQ(on([&] { return device->startScanWithCrop({0, 0, 1, 1}); }), kScanLibErrBusy);
        on([&] {
            device->stopScan();
            device->stopScan();
        });
        EXPECT_EQ(caseLog.wait(), "ScanAbortedNotification");
        EXPECT_EQ(std::tuple(mModel->commandCount(kScanMsgCancelScan), fileExists(path)), std::tuple(1, false));
        EXPECT_EQ(on([&] { return std::pair(device->lastScanError(), device->scanState()); }),
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
