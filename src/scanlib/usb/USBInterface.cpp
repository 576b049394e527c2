#include "scanlib/usb/USBInterface.h"

#include "scanlib/ScanProtocol.h"

#include <cstring>
#include <new>

namespace zentary {

std::unique_ptr<USBInterface> USBInterface::interfaceWithPipes(std::unique_ptr<UsbPipes> pipes)
{
    if (!pipes) return nullptr;
    return std::make_unique<USBInterface>(std::move(pipes));
}

USBInterface::USBInterface(std::unique_ptr<UsbPipes> pipes) : mInterface(std::move(pipes)) {}

USBInterface::~USBInterface()
{
    close();
}

int USBInterface::open()
{
    if (isOpen()) return kUSBNoErr;
    if (!mInterface) return kUSBErrNoDevice;
    std::uint16_t outSize = 0, inSize = 0;
    int result = mInterface->open(&outSize, &inSize);
    if (result != kUSBNoErr) return result;
    // A zero packet size would make every read loop forever on nothing.
    if (outSize == 0 || inSize == 0) {
        mInterface->close();
        return kUSBErrNoPipes;
    }
    mBuffer.reset(new (std::nothrow) std::uint8_t[inSize]);
    if (!mBuffer) {
        mInterface->close();
        return kUSBErrNoMemory;
    }
    mBulkOutPipe = 1;
    mBulkInPipe = 2;
    mBulkOutPipeMaxPacketSize = outSize;
    mBulkInPipeMaxPacketSize = inSize;
    mBufferPos = 0;
    mBytesInBuffer = 0;
    return kUSBNoErr;
}

void USBInterface::close()
{
    if (!isOpen()) return;
    mBuffer.reset();
    mBulkOutPipe = 0;
    mBulkInPipe = 0;
    mBytesInBuffer = 0;
    mBufferPos = 0;
    mInterface->close();
}

int USBInterface::writeSynchronouslyFromBuffer(const std::uint8_t* buffer, std::uint32_t havingSize)
{
    if (!mInterface) return kUSBErrNoDevice;
    if (!isOpen()) return kUSBErrNotOpen;
    return mInterface->writePipe(buffer, havingSize, kWriteTimeOut);
}

std::uint32_t USBInterface::copyExtraDataBytes(std::uint32_t count, std::uint8_t* intoBuffer)
{
    // A packet with no pixel bytes asks for nothing, maybe into no buffer at
    // all; memcpy must not even see that null.
    if (mBytesInBuffer == 0 || count == 0) return 0;
    std::uint32_t n = mBytesInBuffer <= count ? mBytesInBuffer : count;
    std::memcpy(intoBuffer, mBuffer.get() + mBufferPos, n);
    mBytesInBuffer -= n;
    mBufferPos = mBytesInBuffer == 0 ? 0 : mBufferPos + n;
    return n;
}

int USBInterface::fillExtraDataBuffer(std::uint32_t usingNoDataTimeout, std::uint32_t andCompletionTimeout)
{
    mBufferPos = 0;
    std::uint32_t received = 0;
    int result = mInterface->readPipe(mBuffer.get(), mBulkInPipeMaxPacketSize, &received, usingNoDataTimeout,
                                      andCompletionTimeout);
    // A transport that claims more than it was given must not widen the buffer.
    mBytesInBuffer = result == kUSBNoErr && received <= mBulkInPipeMaxPacketSize ? received : 0;
    return result;
}

int USBInterface::readSynchronouslyIntoBuffer(std::uint8_t* buffer, std::uint32_t* havingSize,
                                              std::uint32_t usingNoDataTimeout, std::uint32_t andCompletionTimeout)
{
    const std::uint32_t wanted = *havingSize;
    if (!mInterface) {
        *havingSize = 0;
        return kUSBErrNoDevice;
    }
    if (!isOpen()) {
        *havingSize = 0;
        return kUSBErrNotOpen;
    }
    std::uint32_t got = copyExtraDataBytes(wanted, buffer);
    if (got == wanted) return kUSBNoErr;

    const std::uint32_t packet = mBulkInPipeMaxPacketSize;
    std::uint32_t rest = wanted - got;
    while (rest >= packet) {
        std::uint32_t request = rest - rest % packet;
        std::uint32_t received = 0;
        int result = mInterface->readPipe(buffer + got, request, &received, usingNoDataTimeout, andCompletionTimeout);
        if (received > request) received = request;
        got += received;
        rest -= received;
        if (result != kUSBNoErr) {
            *havingSize = got;
            return result;
        }
        // A short transfer is the device's end of message: asking again would
        // read the next message into this one.
        if (received < request) {
            *havingSize = got;
            return kUSBNoErr;
        }
    }
    if (rest > 0) {
        int result = fillExtraDataBuffer(usingNoDataTimeout, andCompletionTimeout);
        if (result != kUSBNoErr) {
            *havingSize = got;
            return result;
        }
        got += copyExtraDataBytes(rest, buffer + got);
    }
    *havingSize = got;
    return kUSBNoErr;
}

}  // namespace zentary
