// libusb-1.0 behind the transport seam.
#pragma once

#include "scanlib/usb/UsbTransport.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zentary {

// The first device with this vendor and product ID (and serial number, when
// given), opened; null when none can be found and opened.
std::unique_ptr<UsbDeviceBackend> findLibusbDevice(std::uint16_t vid, std::uint16_t pid,
                                                   const std::optional<std::string>& serialNumber);

// Where a device is plugged in, as libusb numbers it.
struct UsbLocation {
    std::uint8_t bus = 0;
    std::uint8_t address = 0;
};

// Every device with this vendor and product ID, opened or not.
std::vector<UsbLocation> listLibusbDevices(std::uint16_t vid, std::uint16_t pid);
// The device with this vendor and product ID at `location`, opened.
std::unique_ptr<UsbDeviceBackend> openLibusbDeviceAt(std::uint16_t vid, std::uint16_t pid, UsbLocation location);

// libusb's result as one of our USB results.
int mapLibusbResult(int libusbResult);

}  // namespace zentary
