#include "scanlib/PacketUtils.h"

#include "scanlib/ScanLibError.h"

#include <bit>
#include <cstring>

namespace zentary {

namespace {

inline std::uint32_t swapWord(std::uint32_t v)
{
    if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(v);
    return v;
}

template <typename Record>
void swapWords(Record* record)
{
    static_assert(sizeof(Record) % 4 == 0);
    std::uint32_t words[sizeof(Record) / 4];
    std::memcpy(words, record, sizeof words);
    for (auto& word : words) word = swapWord(word);
    std::memcpy(record, words, sizeof words);
}

int readReply(USBInterface* interface, ScanHeader* reply)
{
    std::uint8_t bytes[kScanHeaderSize];
    std::uint32_t count = kScanHeaderSize;
    int result = interface->readSynchronouslyIntoBuffer(bytes, &count, kNoDataTimeOut, kCompletionTimeOut);
    if (result != kUSBNoErr) return ScanLibError::mapUSBInterfaceError(result, kScanLibErrRead);
    // Half a header is no reply; its fields would be half stale.
    if (count != kScanHeaderSize) return kScanLibErrRead;
    std::memcpy(reply, bytes, kScanHeaderSize);
    PacketUtils::convertScanHeaderToHost(reply);
    return 0;
}

}  // namespace

void PacketUtils::initScanHeader(ScanHeader* header, std::uint32_t withMessage)
{
    if (!header) return;
    std::memset(header, 0, sizeof *header);
    header->signature = kScanPacketSignature;
    header->message = withMessage;
    convertScanHeaderToNetwork(header);
}

void PacketUtils::convertScanHeaderToHost(ScanHeader* header)
{
    if (header) swapWords(header);
}

void PacketUtils::convertScanHeaderToNetwork(ScanHeader* header)
{
    if (header) swapWords(header);
}

void PacketUtils::convertScanDataHeaderToHost(ScanDataHeader* header)
{
    if (header) swapWords(header);
}

void PacketUtils::settingsFromWire(ScannerSettings* settings, const std::uint8_t* wire)
{
    for (std::size_t i = 0; i < kSettingsFields; ++i) settings->fields[i] = loadBE32(wire + 4 * i);
}

void PacketUtils::settingsToWire(const ScannerSettings& settings, std::uint8_t* wire)
{
    for (std::size_t i = 0; i < kSettingsFields; ++i) storeBE32(wire + 4 * i, settings.fields[i]);
}

int PacketUtils::sendPacket(std::uint8_t* packet, std::int32_t oflength, USBInterface* toInterface,
                            ScanHeader* andReturnScanHeader)
{
    if (!toInterface) return kScanLibErrGeneric;
    if (!packet || oflength < 0 || !andReturnScanHeader) return kScanLibErrGeneric;
    int result = toInterface->writeSynchronouslyFromBuffer(packet, std::uint32_t(oflength));
    if (result != kUSBNoErr) return ScanLibError::mapUSBInterfaceError(result, kScanLibErrWrite);
    return readReply(toInterface, andReturnScanHeader);
}

int PacketUtils::sendPacketToInterface(USBInterface* interface, std::uint32_t withMessage)
{
    if (!interface) return kScanLibErrGeneric;
    ScanHeader header;
    initScanHeader(&header, withMessage);
    int result = interface->writeSynchronouslyFromBuffer(reinterpret_cast<const std::uint8_t*>(&header),
                                                         kScanHeaderSize);
    return ScanLibError::mapUSBInterfaceError(result, kScanLibErrWrite);
}

int PacketUtils::sendPacketToInterface(USBInterface* interface, std::uint32_t withMessage,
                                       std::uint32_t* andReturnStatus)
{
    if (!interface) return kScanLibErrGeneric;
    ScanHeader header;
    initScanHeader(&header, withMessage);
    int result = sendPacket(reinterpret_cast<std::uint8_t*>(&header), kScanHeaderSize, interface, &header);
    if (result != 0) return result;
    result = header.message == withMessage && header.signature == kScanPacketSignature ? 0 : kScanLibErrRead;
    if (andReturnStatus) *andReturnStatus = header.status;
    return result;
}

int PacketUtils::getSettings(ScannerSettings* settings, USBInterface* fromInterface)
{
    if (!fromInterface) return kScanLibErrGeneric;
    if (!settings) return kScanLibErrGeneric;
    ScanHeader header;
    initScanHeader(&header, kScanMsgGetSettings);
    int result = sendPacket(reinterpret_cast<std::uint8_t*>(&header), kScanHeaderSize, fromInterface, &header);
    if (result != 0) return result;
    if (header.message != kScanMsgGetSettings) return kScanLibErrRead;

    if (header.length == kSettingsSize) {
        std::uint8_t wire[kSettingsSize];
        std::uint32_t count = kSettingsSize;
        result = fromInterface->readSynchronouslyIntoBuffer(wire, &count, kNoDataTimeOut, kCompletionTimeOut);
        if (result != kUSBNoErr) return ScanLibError::mapUSBInterfaceError(result, kScanLibErrRead);
        if (count != kSettingsSize) return kScanLibErrRead;
        settingsFromWire(settings, wire);
        return 0;
    }
    // Drain the odd payload in fixed chunks so the next header lines up, then
    // refuse it. A payload beyond any sane record is not drained at all: the
    // session's next exchange will fail on it anyway.
    constexpr std::uint32_t kMaxDrain = 64 * 1024;
    if (header.length > kMaxDrain) return kScanLibErrRead;
    std::uint8_t chunk[4096];
    std::uint32_t rest = header.length;
    while (rest > 0) {
        std::uint32_t count = rest < sizeof chunk ? rest : std::uint32_t(sizeof chunk);
        const std::uint32_t asked = count;
        result = fromInterface->readSynchronouslyIntoBuffer(chunk, &count, kNoDataTimeOut, kCompletionTimeOut);
        if (result != kUSBNoErr) return ScanLibError::mapUSBInterfaceError(result, kScanLibErrRead);
        rest -= count;
        if (count < asked) break;
    }
    return kScanLibErrRead;
}

int PacketUtils::sendSettings(const ScannerSettings* settings, USBInterface* toInterface)
{
    if (!toInterface) return kScanLibErrGeneric;
    if (!settings) return kScanLibErrGeneric;
    std::uint8_t packet[kScanHeaderSize + kSettingsSize];
    ScanHeader header;
    initScanHeader(&header, kScanMsgSetSettings);
    std::memcpy(packet, &header, kScanHeaderSize);
    storeBE32(packet + offsetof(ScanHeader, length), kSettingsSize);
    settingsToWire(*settings, packet + kScanHeaderSize);
    ScanHeader reply;
    int result = sendPacket(packet, sizeof packet, toInterface, &reply);
    if (result != 0) return result;
    return reply.message == kScanMsgSetSettings && reply.status == 0 ? 0 : kScanLibErrRead;
}

}  // namespace zentary
