// libusb-1.0 behind the transport seam.
#pragma once

#include "scanlib/usb/UsbTransport.h"

#include <memory>
#include <optional>
#include <string>

namespace zentary {

// The first device with this vendor and product ID (and serial number, when
// given), opened; null when none can be found and opened.
std::unique_ptr<UsbDeviceBackend> findLibusbDevice(std::uint16_t vid, std::uint16_t pid,
                                                   const std::optional<std::string>& serialNumber);

// libusb's result as one of our USB results.
int mapLibusbResult(int libusbResult);

}  // namespace zentary
