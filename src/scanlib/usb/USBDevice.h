// The scanner's USB device, found by vendor and product ID and optionally by
// serial number. Which transport backs it is chosen by ZENTARY_SCANNER:
// unset (or empty) for libusb, "emulator" or "emulator:<options>" for the
// in-process scanner model.
#pragma once

#include "scanlib/usb/USBInterface.h"
#include "scanlib/usb/UsbTransport.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace zentary {

class USBDevice {
public:
    // Null when no matching device is found (or ZENTARY_SCANNER names no
    // transport we know).
    static std::unique_ptr<USBDevice> usbDeviceWithVid(std::uint16_t vid, std::uint16_t pid,
                                                       const std::optional<std::string>& andSerialNumber);
    // Always real USB, whatever the environment says.
    static std::unique_ptr<USBDevice> libusbDeviceWithVid(std::uint16_t vid, std::uint16_t pid,
                                                          const std::optional<std::string>& andSerialNumber);

    explicit USBDevice(std::unique_ptr<UsbDeviceBackend> device);
    USBDevice(const USBDevice&) = delete;
    USBDevice& operator=(const USBDevice&) = delete;

    // The same object for the same triple for the device's lifetime; null
    // when the device has no such interface. The device keeps ownership.
    USBInterface* interfaceWithClass(std::uint16_t usbClass, std::uint16_t subclass, std::uint16_t andProtocol);

private:
    std::unique_ptr<UsbDeviceBackend> mDevice;
    // Declared after mDevice so interfaces go first: they may share its handle.
    std::map<std::string, std::unique_ptr<USBInterface>> mInterfaces;
};

}  // namespace zentary
