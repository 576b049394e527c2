// The real libusb path (USBDevice over libusb, no emulator transport) against
// the scanner model behind an emulated usbfs node: umockdev's testbed gives
// libusb a sysfs device with the scanner's descriptors, and our ioctl handler
// answers the usbfs URBs from the model. umockdev works by LD_PRELOAD, so
// main() re-executes the test with the preload set when it is not.
#include "ScanlibTestSupport.h"

#include "emulator/ScannerModel.h"
#include "integration/transfers/ChartImages.h"
#include "support/TestEnvironment.h"

#include <umockdev.h>

#include <cerrno>
#include <cstring>
#include <linux/ioctl.h>
#include <linux/usbdevice_fs.h>
#include <list>

namespace zentary::test {
namespace {

bool preloaded()
{
    const char* preload = ::getenv("LD_PRELOAD");
    return preload && std::strstr(preload, "libumockdev-preload");
}

using namespace std::chrono_literals;

// Checks a finished raw file pixel by pixel against the chart.
void expectChartScan(const std::string& path, std::uint32_t dpi, Origin origin, std::uint32_t width, std::uint32_t rows)
{
    RawFileInfo info;
    ASSERT_TRUE(readRawFileInfo(path, &info));
    EXPECT_EQ(std::tuple(info.header.colorType, info.header.resolution, info.header.pixelsPerRow, info.header.rows,
                         info.rowsPresent),
              std::tuple(0u, dpi, width, rows, rows));
    std::string bytes = readFile(path);
    ASSERT_EQ(bytes.size(), 32 + info.rowBytes * rows);
    Picture picture{width, rows, 3, 0, 0, {}};
    for (std::uint32_t y = 0; y < rows; ++y)
        for (std::uint32_t x = 0; x < width; ++x) {
            const char* rgb = bytes.data() + 32 + y * info.rowBytes + x * 4 + 1;  // after the unused byte
            picture.pixels.insert(picture.pixels.end(), rgb, rgb + 3);
        }
    EXPECT_TRUE(samePixels(picture, chartPicture(origin, dpi, width, rows, 3)));
}

constexpr const char* kDevNode = "/dev/bus/usb/001/002";

// Device, configuration, vendor interface and its two bulk endpoints of 512.
constexpr const char* kDescription =
    "P: /devices/pci0000:00/usb1/1-1\n"
    "N: bus/usb/001/002\n"
    "E: SUBSYSTEM=usb\n"
    "E: DEVTYPE=usb_device\n"
    "E: DEVNAME=/dev/bus/usb/001/002\n"
    "E: BUSNUM=001\n"
    "E: DEVNUM=002\n"
    "A: busnum=1\\n\n"
    "A: devnum=2\\n\n"
    "A: bConfigurationValue=1\\n\n"
    "A: speed=480\\n\n"
    "H: descriptors=12010002000000405d2e214a000100000001"
    "09022000010100c001"
    "0904000002ffffff00"
    "0705010200020007058102000200\n";

// The usbfs side of the scanner: URBs are answered from the model when
// libusb reaps them, in the order they were submitted.
struct UsbfsScanner {
    explicit UsbfsScanner(std::shared_ptr<ScannerModel> scanner) : model(std::move(scanner)) {}

    static gboolean handle(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
    {
        return static_cast<UsbfsScanner*>(self)->ioctl(client);
    }

    gboolean ioctl(UMockdevIoctlClient* client)
    {
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        switch (umockdev_ioctl_client_get_request(client)) {
        case USBDEVFS_GET_CAPABILITIES: {
            UMockdevIoctlData* caps = umockdev_ioctl_data_resolve(arg, 0, sizeof(guint32), nullptr);
            *reinterpret_cast<guint32*>(caps->data) = USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                                      USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
            umockdev_ioctl_client_complete(client, 0, 0);
            g_object_unref(caps);
            return TRUE;
        }
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE:
        case USBDEVFS_DISCONNECT_CLAIM:
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESETEP:
            umockdev_ioctl_client_complete(client, 0, 0);
            return TRUE;
        case USBDEVFS_GETDRIVER:
        case USBDEVFS_IOCTL:
            umockdev_ioctl_client_complete(client, -1, ENODATA);
            return TRUE;
        case USBDEVFS_SUBMITURB: {
            UMockdevIoctlData* urb = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
            std::lock_guard<std::mutex> guard(mutex);
            flying.push_back(urb);
            umockdev_ioctl_client_complete(client, 0, 0);
            return TRUE;
        }
        case USBDEVFS_REAPURB:
        case USBDEVFS_REAPURBNDELAY: return reap(client, arg);
        case USBDEVFS_DISCARDURB: {
            std::lock_guard<std::mutex> guard(mutex);
            gulong address = reinterpret_cast<gulong>(*reinterpret_cast<void**>(arg->data));
            for (auto it = flying.begin(); it != flying.end(); ++it)
                if ((*it)->client_addr == address) {
                    reinterpret_cast<usbdevfs_urb*>((*it)->data)->status = -ENOENT;
                    discarded.push_back(*it);
                    flying.erase(it);
                    umockdev_ioctl_client_complete(client, 0, 0);
                    return TRUE;
                }
            umockdev_ioctl_client_complete(client, -1, EINVAL);
            return TRUE;
        }
        default: return FALSE;
        }
    }

    gboolean reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg)
    {
        std::lock_guard<std::mutex> guard(mutex);
        UMockdevIoctlData* done = nullptr;
        if (!discarded.empty()) {
            done = discarded.front();
            discarded.pop_front();
        } else if (!flying.empty()) {
            UMockdevIoctlData* data = flying.front();
            auto* urb = reinterpret_cast<usbdevfs_urb*>(data->data);
            // Same address space: the URB's buffer pointer is the client's.
            auto* buffer = static_cast<std::uint8_t*>(urb->buffer);
            std::uint32_t length = std::uint32_t(urb->buffer_length), got = 0;
            int result = (urb->endpoint & 0x80) ? model->send(buffer, length, &got) : model->receive(buffer, length);
            if (!(urb->endpoint & 0x80) && result == kUSBNoErr) got = length;
            if (result == kUSBErrTimeout) {
                // Nothing to send yet: the URB stays queued until libusb's
                // own time-out discards it.
                umockdev_ioctl_client_complete(client, -1, EAGAIN);
                return TRUE;
            }
            urb->actual_length = int(got);
            urb->status = result == kUSBNoErr ? 0 : result == kUSBErrNoDevice ? -ENODEV : -EPIPE;
            flying.pop_front();
            done = data;
        }
        if (!done) {
            umockdev_ioctl_client_complete(client, -1, EAGAIN);
            return TRUE;
        }
        UMockdevIoctlData* pointer = umockdev_ioctl_data_resolve(arg, 0, sizeof(gpointer), nullptr);
        umockdev_ioctl_data_set_ptr(pointer, 0, done);
        umockdev_ioctl_client_complete(client, 0, 0);
        g_object_unref(pointer);
        g_object_unref(done);
        return TRUE;
    }

    std::shared_ptr<ScannerModel> model;
    std::mutex mutex;
    std::list<UMockdevIoctlData*> flying;
    std::list<UMockdevIoctlData*> discarded;
};

TEST(ScanlibUmockdev, LibusbScanMatchesTheChart)
{
    if (!preloaded())
        GTEST_SKIP() << "libumockdev-preload.so could not be preloaded";
#if defined(__SANITIZE_THREAD__)
    // umockdev hands each ioctl to its worker thread over a socket, an order
    // ThreadSanitizer cannot see: every access of the emulator would be
    // reported. The scan library's own threads are checked in test_scanlib.
    GTEST_SKIP() << "umockdev's hand-over between threads is invisible to ThreadSanitizer";
#endif
    UMockdevTestbed* testbed = umockdev_testbed_new();
    EmulatorOptions options;
    options.rowsPerPacket = 11;
    auto model = std::make_shared<ScannerModel>(options);
    UsbfsScanner scanner(model);
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(&UsbfsScanner::handle), &scanner);
    ASSERT_TRUE(umockdev_testbed_attach_ioctl(testbed, kDevNode, handler, nullptr));
    GError* error = nullptr;
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed, kDescription, &error))
        << (error ? error->message : "");

    {
        ::unsetenv("ZENTARY_SCANNER");
        DeviceSession session;
        session.on([&] {
            session.device = ScanDevice::scanDeviceWithUSBDevice(
                kScannerProductID, USBDevice::libusbDeviceWithVid(kScannerVendorID, kScannerProductID, std::nullopt),
                session.center);
        });
        ASSERT_TRUE(session.device) << "libusb did not find the emulated scanner";
        session.openSession();
        ASSERT_EQ(session.start({1.0f, 3.5f, 2.0f, 1.0f}, kColorTypeColor, 150), 0);
        EXPECT_EQ(session.log.wait(), "ScanCompletedNotification");
        expectChartScan(session.path, 150, {100, 350}, 300, 150);
        session.close();
        EXPECT_FALSE(model->isLocked());
    }
    umockdev_testbed_detach_ioctl(testbed, kDevNode, nullptr);
    g_object_unref(handler);
    g_object_unref(testbed);
}

}  // namespace
}  // namespace zentary::test

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <dlfcn.h>
extern "C" void __asan_init() __attribute__((weak));
extern "C" void __tsan_init() __attribute__((weak));
#endif

int main(int argc, char** argv)
{
    // umockdev must be preloaded before libc resolves open() and ioctl(); a
    // sanitizer runtime has to come first in the list.
    if (!zentary::test::preloaded() && !::getenv("ZENTARY_UMOCKDEV_TRIED")) {
        ::setenv("ZENTARY_UMOCKDEV_TRIED", "1", 1);
        std::string preload;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        Dl_info info;
        void* runtime = __asan_init ? reinterpret_cast<void*>(&__asan_init) : reinterpret_cast<void*>(&__tsan_init);
        if (runtime && ::dladdr(runtime, &info) && info.dli_fname) preload = std::string(info.dli_fname) + ":";
#endif
        preload += "libumockdev-preload.so.0";
        if (const char* old = ::getenv("LD_PRELOAD")) preload += std::string(":") + old;
        ::setenv("LD_PRELOAD", preload.c_str(), 1);
        char self[4096];
        ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
        if (n > 0) {
            self[n] = 0;
            ::execv(self, argv);
        }
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
