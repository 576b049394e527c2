#include "scanlib/usb/USBDevice.h"

#include "emulator/EmulatorTransport.h"
#include "scanlib/usb/LibusbBackend.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace zentary {

std::unique_ptr<USBDevice> USBDevice::usbDeviceWithVid(std::uint16_t vid, std::uint16_t pid,
                                                       const std::optional<std::string>& andSerialNumber)
{
    const char* selection = std::getenv("ZENTARY_SCANNER");
    if (!selection || !*selection) return libusbDeviceWithVid(vid, pid, andSerialNumber);
    std::string text(selection);
    static constexpr std::string_view kEmulator = "emulator";
    if (text.compare(0, kEmulator.size(), kEmulator) != 0) return nullptr;
    std::string options;
    if (text.size() > kEmulator.size()) {
        if (text[kEmulator.size()] != ':') return nullptr;
        options = text.substr(kEmulator.size() + 1);
    }
    auto device = makeEmulatorDevice(vid, pid, andSerialNumber, options);
    if (!device) return nullptr;
    return std::make_unique<USBDevice>(std::move(device));
}

std::unique_ptr<USBDevice> USBDevice::libusbDeviceWithVid(std::uint16_t vid, std::uint16_t pid,
                                                          const std::optional<std::string>& andSerialNumber)
{
    auto device = findLibusbDevice(vid, pid, andSerialNumber);
    if (!device) return nullptr;
    return std::make_unique<USBDevice>(std::move(device));
}

USBDevice::USBDevice(std::unique_ptr<UsbDeviceBackend> device) : mDevice(std::move(device)) {}

USBInterface* USBDevice::interfaceWithClass(std::uint16_t usbClass, std::uint16_t subclass, std::uint16_t andProtocol)
{
    char key[24];
    std::snprintf(key, sizeof key, "%u.%u.%u", unsigned(usbClass), unsigned(subclass), unsigned(andProtocol));
    auto found = mInterfaces.find(key);
    if (found != mInterfaces.end()) return found->second.get();
    if (!mDevice) return nullptr;
    auto interface = USBInterface::interfaceWithPipes(mDevice->findInterface(usbClass, subclass, andProtocol));
    if (!interface) return nullptr;
    USBInterface* result = interface.get();
    mInterfaces.emplace(key, std::move(interface));
    return result;
}

}  // namespace zentary
