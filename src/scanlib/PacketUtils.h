// Framing of the scanner's packets and the command exchanges. Stateless: two
// exchanges on one interface must not overlap, which the session and the
// scan thread guarantee by taking turns (see ScanDevice.h).
#pragma once

#include "scanlib/ScanProtocol.h"
#include "scanlib/usb/USBInterface.h"

#include <cstdint>

namespace zentary {

class PacketUtils {
public:
    PacketUtils() = delete;

    static void initScanHeader(ScanHeader* header, std::uint32_t withMessage);
    static void convertScanHeaderToHost(ScanHeader* header);
    static void convertScanHeaderToNetwork(ScanHeader* header);
    static void convertScanDataHeaderToHost(ScanDataHeader* header);
    // Reads the 25 big-endian words of `wire` into `settings`, and back.
    static void settingsFromWire(ScannerSettings* settings, const std::uint8_t* wire);
    static void settingsToWire(const ScannerSettings& settings, std::uint8_t* wire);

    // Writes `packet` and reads one 32-byte reply into `andReturnScanHeader`
    // (in host order); the reply may overwrite the packet's own header.
    static int sendPacket(std::uint8_t* packet, std::int32_t oflength, USBInterface* toInterface,
                          ScanHeader* andReturnScanHeader);
    // A bare command that gets no reply.
    static int sendPacketToInterface(USBInterface* interface, std::uint32_t withMessage);
    // A bare command whose reply must echo it; the reply's status is handed
    // back whenever a reply was read, even a malformed one.
    static int sendPacketToInterface(USBInterface* interface, std::uint32_t withMessage,
                                     std::uint32_t* andReturnStatus);
    // A settings reply announcing any length other than 100 is drained and
    // reported as kScanLibErrRead: its record cannot be trusted.
    static int getSettings(ScannerSettings* settings, USBInterface* fromInterface);
    static int sendSettings(const ScannerSettings* settings, USBInterface* toInterface);
};

}  // namespace zentary
