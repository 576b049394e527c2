#include "scanlib/usb/LibusbBackend.h"

#include <libusb.h>

#include <cstring>
#include <vector>

namespace zentary {

int mapLibusbResult(int libusbResult)
{
    switch (libusbResult) {
    case LIBUSB_SUCCESS: return kUSBNoErr;
    case LIBUSB_ERROR_BUSY: return kUSBErrExclusiveAccess;
    case LIBUSB_ERROR_NO_DEVICE: return kUSBErrNoDevice;
    case LIBUSB_ERROR_NOT_FOUND: return kUSBErrNotOpen;  // interface not claimed
    case LIBUSB_ERROR_TIMEOUT: return kUSBErrTimeout;
    default: return kUSBErrIO;
    }
}

namespace {

struct ContextDeleter {
    void operator()(libusb_context* context) const { libusb_exit(context); }
};
struct HandleDeleter {
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};
struct DeviceListDeleter {
    void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
struct ConfigDeleter {
    void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};
using ContextPtr = std::shared_ptr<libusb_context>;
using ConfigPtr = std::unique_ptr<libusb_config_descriptor, ConfigDeleter>;

// The handle keeps its context alive: a handle must be closed before libusb_exit.
struct OpenDevice {
    ContextPtr context;
    std::unique_ptr<libusb_device_handle, HandleDeleter> handle;
};

class LibusbPipes final : public UsbPipes {
public:
    LibusbPipes(std::shared_ptr<OpenDevice> device, int interfaceNumber, int altSetting)
        : mDevice(std::move(device)), mInterfaceNumber(interfaceNumber), mAltSetting(altSetting)
    {
    }
    ~LibusbPipes() override { close(); }

    int open(std::uint16_t* bulkOutMaxPacketSize, std::uint16_t* bulkInMaxPacketSize) override
    {
        libusb_device_handle* handle = mDevice->handle.get();
        libusb_set_auto_detach_kernel_driver(handle, 1);
        int rc = libusb_claim_interface(handle, mInterfaceNumber);
        if (rc != LIBUSB_SUCCESS) return mapLibusbResult(rc);
        mClaimed = true;
        if (mAltSetting != 0) {
            rc = libusb_set_interface_alt_setting(handle, mInterfaceNumber, mAltSetting);
            if (rc != LIBUSB_SUCCESS) {
                close();
                return mapLibusbResult(rc);
            }
        }
        libusb_config_descriptor* raw = nullptr;
        rc = libusb_get_active_config_descriptor(libusb_get_device(handle), &raw);
        if (rc != LIBUSB_SUCCESS) {
            close();
            return mapLibusbResult(rc);
        }
        ConfigPtr config(raw);
        const libusb_interface_descriptor* alt = nullptr;
        for (int i = 0; i < config->bNumInterfaces && !alt; ++i)
            for (int a = 0; a < config->interface[i].num_altsetting; ++a) {
                const auto& candidate = config->interface[i].altsetting[a];
                if (candidate.bInterfaceNumber == mInterfaceNumber && candidate.bAlternateSetting == mAltSetting)
                    alt = &candidate;
            }
        mOut = mIn = 0;
        std::uint16_t outSize = 0, inSize = 0;
        // In endpoint order; a later bulk pipe of one direction replaces an
        // earlier one while the other direction is still missing.
        for (int e = 0; alt && e < alt->bNumEndpoints && (mOut == 0 || mIn == 0); ++e) {
            const auto& endpoint = alt->endpoint[e];
            if ((endpoint.bmAttributes & LIBUSB_TRANSFER_TYPE_MASK) != LIBUSB_TRANSFER_TYPE_BULK) continue;
            std::uint16_t size = endpoint.wMaxPacketSize & 0x7FF;
            if (endpoint.bEndpointAddress & LIBUSB_ENDPOINT_IN) {
                mIn = endpoint.bEndpointAddress;
                inSize = size;
            } else {
                mOut = endpoint.bEndpointAddress;
                outSize = size;
            }
        }
        if (mOut == 0 || mIn == 0) {
            close();
            return kUSBErrNoPipes;
        }
        *bulkOutMaxPacketSize = outSize;
        *bulkInMaxPacketSize = inSize;
        return kUSBNoErr;
    }

    void close() override
    {
        if (!mClaimed) return;
        mClaimed = false;
        mOut = mIn = 0;
        libusb_release_interface(mDevice->handle.get(), mInterfaceNumber);
    }

    int writePipe(const std::uint8_t* data, std::uint32_t size, std::uint32_t timeoutMs) override
    {
        if (!mClaimed) return kUSBErrNotOpen;
        if (size > INT32_MAX) return kUSBErrIO;
        int transferred = 0;
        // libusb takes a non-const buffer for both directions; an OUT
        // transfer does not write to it.
        int rc = libusb_bulk_transfer(mDevice->handle.get(), mOut, const_cast<std::uint8_t*>(data), int(size),
                                      &transferred, timeoutMs);
        if (rc != LIBUSB_SUCCESS) return mapLibusbResult(rc);
        return std::uint32_t(transferred) == size ? kUSBNoErr : kUSBErrIO;
    }

    int readPipe(std::uint8_t* data, std::uint32_t size, std::uint32_t* received, std::uint32_t noDataTimeoutMs,
                 std::uint32_t completionTimeoutMs) override
    {
        *received = 0;
        if (!mClaimed) return kUSBErrNotOpen;
        if (size > INT32_MAX) return kUSBErrIO;
        // libusb has one time-out per transfer: the completion time-out when
        // there is one, else the no-data time-out bounds the whole transfer.
        unsigned timeout = completionTimeoutMs != 0 ? completionTimeoutMs : noDataTimeoutMs;
        int transferred = 0;
        int rc = libusb_bulk_transfer(mDevice->handle.get(), mIn, data, int(size), &transferred, timeout);
        if (transferred > 0) *received = std::uint32_t(transferred);
        return mapLibusbResult(rc);
    }

private:
    std::shared_ptr<OpenDevice> mDevice;
    int mInterfaceNumber;
    int mAltSetting;
    bool mClaimed = false;
    unsigned char mOut = 0;
    unsigned char mIn = 0;
};

class LibusbDevice final : public UsbDeviceBackend {
public:
    explicit LibusbDevice(std::shared_ptr<OpenDevice> device) : mDevice(std::move(device)) {}

    std::unique_ptr<UsbPipes> findInterface(std::uint16_t usbClass, std::uint16_t usbSubclass,
                                            std::uint16_t usbProtocol) override
    {
        libusb_config_descriptor* raw = nullptr;
        if (libusb_get_active_config_descriptor(libusb_get_device(mDevice->handle.get()), &raw) != LIBUSB_SUCCESS)
            return nullptr;
        ConfigPtr config(raw);
        for (int i = 0; i < config->bNumInterfaces; ++i)
            for (int a = 0; a < config->interface[i].num_altsetting; ++a) {
                const auto& alt = config->interface[i].altsetting[a];
                if (alt.bInterfaceClass == usbClass && alt.bInterfaceSubClass == usbSubclass &&
                    alt.bInterfaceProtocol == usbProtocol)
                    return std::make_unique<LibusbPipes>(mDevice, alt.bInterfaceNumber, alt.bAlternateSetting);
            }
        return nullptr;
    }

private:
    std::shared_ptr<OpenDevice> mDevice;
};

bool serialMatches(libusb_device_handle* handle, const libusb_device_descriptor& descriptor,
                   const std::string& serial)
{
    if (descriptor.iSerialNumber == 0) return false;
    unsigned char text[256];
    int n = libusb_get_string_descriptor_ascii(handle, descriptor.iSerialNumber, text, sizeof text);
    return n >= 0 && std::size_t(n) == serial.size() && std::memcmp(text, serial.data(), serial.size()) == 0;
}

}  // namespace

namespace {

// Calls `visit` with each device of vid:pid (and the context it lives in,
// for a device that is opened and kept) until it returns true.
template <typename Visit>
void visitMatching(std::uint16_t vid, std::uint16_t pid, Visit visit)
{
    libusb_context* rawContext = nullptr;
    if (libusb_init(&rawContext) != LIBUSB_SUCCESS) return;
    ContextPtr context(rawContext, ContextDeleter());

    libusb_device** rawList = nullptr;
    ssize_t count = libusb_get_device_list(rawContext, &rawList);
    if (count < 0) return;
    std::unique_ptr<libusb_device*, DeviceListDeleter> list(rawList);

    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor descriptor;
        if (libusb_get_device_descriptor(rawList[i], &descriptor) != LIBUSB_SUCCESS) continue;
        if (descriptor.idVendor != vid || descriptor.idProduct != pid) continue;
        if (visit(rawList[i], descriptor, context)) return;
    }
}

// The first matching device that opens; `location`, when given, must match too.
std::unique_ptr<UsbDeviceBackend> openMatching(std::uint16_t vid, std::uint16_t pid,
                                               const std::optional<std::string>& serialNumber,
                                               const std::optional<UsbLocation>& location)
{
    std::unique_ptr<UsbDeviceBackend> opened;
    visitMatching(vid, pid, [&](libusb_device* candidate, const libusb_device_descriptor& descriptor,
                                const ContextPtr& context) {
        if (location && (libusb_get_bus_number(candidate) != location->bus ||
                         libusb_get_device_address(candidate) != location->address))
            return false;
        libusb_device_handle* rawHandle = nullptr;
        if (libusb_open(candidate, &rawHandle) != LIBUSB_SUCCESS) return false;
        auto device = std::make_shared<OpenDevice>();
        device->context = context;
        device->handle.reset(rawHandle);
        if (serialNumber && !serialMatches(rawHandle, descriptor, *serialNumber)) return false;
        opened = std::make_unique<LibusbDevice>(std::move(device));
        return true;
    });
    return opened;
}

}  // namespace

std::unique_ptr<UsbDeviceBackend> findLibusbDevice(std::uint16_t vid, std::uint16_t pid,
                                                   const std::optional<std::string>& serialNumber)
{
    return openMatching(vid, pid, serialNumber, std::nullopt);
}

std::unique_ptr<UsbDeviceBackend> openLibusbDeviceAt(std::uint16_t vid, std::uint16_t pid, UsbLocation location)
{
    return openMatching(vid, pid, std::nullopt, location);
}

std::vector<UsbLocation> listLibusbDevices(std::uint16_t vid, std::uint16_t pid)
{
    std::vector<UsbLocation> found;
    visitMatching(vid, pid, [&](libusb_device* device, const libusb_device_descriptor&, const ContextPtr&) {
        found.push_back({libusb_get_bus_number(device), libusb_get_device_address(device)});
        return false;
    });
    return found;
}

}  // namespace zentary
