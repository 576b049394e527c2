// The narrow seam below USBInterface: one vendor interface's bulk pipes, and a
// device that hands such interfaces out. libusb implements it for real
// hardware (and for umockdev's emulated usbfs); the in-process scanner
// emulator implements it with no USB at all. Everything above the seam,
// including USBInterface's read buffering, is the same code for both.
#pragma once

#include <cstdint>
#include <memory>

namespace zentary {

// Results of every USB operation, small numbers that ScanLibError maps to
// the library's codes.
inline constexpr int kUSBNoErr = 0;
inline constexpr int kUSBErrNoMemory = 1;
inline constexpr int kUSBErrExclusiveAccess = 2;
inline constexpr int kUSBErrNoDevice = 3;
inline constexpr int kUSBErrNotOpen = 4;
inline constexpr int kUSBErrNoPipes = 5;
inline constexpr int kUSBErrTimeout = 6;
inline constexpr int kUSBErrIO = 7;

// The scanner's vendor-specific interface.
inline constexpr std::uint16_t kScnrClass = 0xFF;
inline constexpr std::uint16_t kScnrSubclass = 0xFF;
inline constexpr std::uint16_t kScnrProtocol = 0xFF;

class UsbPipes {
public:
    virtual ~UsbPipes() = default;
    // Claims the interface and finds one bulk-out and one bulk-in pipe.
    virtual int open(std::uint16_t* bulkOutMaxPacketSize, std::uint16_t* bulkInMaxPacketSize) = 0;
    virtual void close() = 0;
    // One bulk-out transfer of the whole buffer.
    virtual int writePipe(const std::uint8_t* data, std::uint32_t size, std::uint32_t timeoutMs) = 0;
    // One bulk-in transfer of up to `size` bytes (a multiple of the max packet
    // size); it ends early at a short packet. `received` is always written.
    virtual int readPipe(std::uint8_t* data, std::uint32_t size, std::uint32_t* received,
                         std::uint32_t noDataTimeoutMs, std::uint32_t completionTimeoutMs) = 0;
};

class UsbDeviceBackend {
public:
    virtual ~UsbDeviceBackend() = default;
    // The first interface with this class triple, not yet opened; null when none.
    virtual std::unique_ptr<UsbPipes> findInterface(std::uint16_t usbClass, std::uint16_t usbSubclass,
                                                    std::uint16_t usbProtocol) = 0;
};

}  // namespace zentary
