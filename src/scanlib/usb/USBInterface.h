// One interface of the scanner with its bulk pipes. Reads are always asked of
// the device in whole packets; a request for less goes through a one-packet
// buffer whose leftover bytes serve the next read, so a 32-byte header read
// never loses the payload bytes that came in the same packet.
#pragma once

#include "scanlib/usb/UsbTransport.h"

#include <cstdint>
#include <memory>

namespace zentary {

class USBInterface {
public:
    // Null when `pipes` is null: there is no interface to talk to.
    static std::unique_ptr<USBInterface> interfaceWithPipes(std::unique_ptr<UsbPipes> pipes);
    explicit USBInterface(std::unique_ptr<UsbPipes> pipes);
    ~USBInterface();
    USBInterface(const USBInterface&) = delete;
    USBInterface& operator=(const USBInterface&) = delete;

    int open();
    void close();
    bool isOpen() const { return mBulkOutPipe != 0; }

    int writeSynchronouslyFromBuffer(const std::uint8_t* buffer, std::uint32_t havingSize);
    // `havingSize` in: bytes wanted; out: bytes placed in `buffer`. Stops
    // early, without error, when a transfer ends short.
    int readSynchronouslyIntoBuffer(std::uint8_t* buffer, std::uint32_t* havingSize,
                                    std::uint32_t usingNoDataTimeout, std::uint32_t andCompletionTimeout);

    std::uint16_t bulkInMaxPacketSize() const { return mBulkInPipeMaxPacketSize; }

private:
    int fillExtraDataBuffer(std::uint32_t usingNoDataTimeout, std::uint32_t andCompletionTimeout);
    std::uint32_t copyExtraDataBytes(std::uint32_t count, std::uint8_t* intoBuffer);

    std::unique_ptr<UsbPipes> mInterface;
    // Non-zero while open; the transport knows the real endpoint numbers.
    std::uint8_t mBulkOutPipe = 0;
    std::uint16_t mBulkOutPipeMaxPacketSize = 0;
    std::uint8_t mBulkInPipe = 0;
    std::uint16_t mBulkInPipeMaxPacketSize = 0;
    std::unique_ptr<std::uint8_t[]> mBuffer;
    std::uint32_t mBufferPos = 0;  // offset of the next unread byte in mBuffer
    std::uint32_t mBytesInBuffer = 0;
};

}  // namespace zentary
