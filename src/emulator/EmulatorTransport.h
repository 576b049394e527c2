// The emulated scanner as a USB device behind the transport seam: no USB at
// all, the model answers the bulk pipes in-process.
#pragma once

#include "emulator/ScannerModel.h"
#include "scanlib/usb/UsbTransport.h"

#include <memory>
#include <optional>
#include <string>

namespace zentary {

// The emulator with `options` (the text after "emulator:"), when it matches
// the IDs and serial number asked for and the options parse; else null.
std::unique_ptr<UsbDeviceBackend> makeEmulatorDevice(std::uint16_t vid, std::uint16_t pid,
                                                     const std::optional<std::string>& serialNumber,
                                                     const std::string& options);
// A device around a model the caller keeps, to watch it.
std::unique_ptr<UsbDeviceBackend> makeEmulatorDevice(std::shared_ptr<ScannerModel> model);

}  // namespace zentary
