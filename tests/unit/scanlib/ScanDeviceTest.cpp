// The scanner session against the in-process emulator: real library code
// from USBInterface up, the emulator below the transport seam. Pixels and
// injected faults are checked through the loaded data source (transfer
// tests, fault matrix, where a client also closes the source mid-scan); here,
// what only the library's caller sees.
#include "ScanlibTestSupport.h"

#include "emulator/EmulatorTransport.h"

namespace zentary::test {
namespace {

using namespace std::chrono_literals;

class ScanDeviceTest : public ::testing::Test, public DeviceSession {
protected:
    void makeDevice()
    {
        mModel = std::make_shared<ScannerModel>(EmulatorOptions{});
        on([&] {
            device = ScanDevice::scanDeviceWithUSBDevice(
                kScannerProductID, std::make_unique<USBDevice>(makeEmulatorDevice(mModel)), center);
        });
        ASSERT_TRUE(device);
    }

    std::shared_ptr<ScannerModel> mModel;
};

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

}  // namespace
}  // namespace zentary::test
