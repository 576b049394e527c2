// The scanner's request/reply packet protocol: wire records and codes shared
// by the library and by the scanner emulator, which plays the device side.
#pragma once

#include <array>
#include <cstdint>

namespace zentary {

inline constexpr std::uint32_t kScanPacketSignature = 0x41535001;

enum ScanMessage : std::uint32_t {
    kScanMsgLock = 0,
    kScanMsgUnlock = 1,
    kScanMsgStartScan = 2,
    kScanMsgCancelScan = 3,
    kScanMsgScanAborted = 4,
    kScanMsgScanData = 5,
    kScanMsgGetSettings = 6,
    kScanMsgSetSettings = 7,
    kScanMsgCheckReady = 8,
    kScanMsgJobStart = 9,
    kScanMsgPageStart = 10,
    kScanMsgImageStart = 11,
    kScanMsgJobEnd = 12,
    kScanMsgPageEnd = 13,
    kScanMsgImageEnd = 14,
    kScanMsgResetBuffers = 21,
};

// Eight 32-bit words, big-endian on the wire, host order in memory.
struct ScanHeader {
    std::uint32_t signature;
    std::uint32_t message;
    std::int32_t reserved1;
    std::int32_t reserved2;
    std::uint32_t status;
    std::uint32_t length;
    std::uint32_t reserved3;
    std::uint32_t reserved4;
};
static_assert(sizeof(ScanHeader) == 32);
inline constexpr std::uint32_t kScanHeaderSize = 32;

// 25 words; the scanner owns most of them and gets them back unchanged.
inline constexpr std::size_t kSettingsFields = 25;
inline constexpr std::uint32_t kSettingsSize = 100;
struct ScannerSettings {
    std::array<std::uint32_t, kSettingsFields> fields;
};
static_assert(sizeof(ScannerSettings) == kSettingsSize);
// The job record the scanner sends at a job's start has the same layout.
using ScanJobRecord = ScannerSettings;

inline constexpr std::size_t kSettingsResolution = 3;
inline constexpr std::size_t kSettingsScanMode = 15;
inline constexpr std::size_t kSettingsAreaTop = 16;
inline constexpr std::size_t kSettingsAreaLeft = 17;
inline constexpr std::size_t kSettingsAreaBottom = 18;
inline constexpr std::size_t kSettingsAreaRight = 19;
inline constexpr std::size_t kSettingsBedTop = 20;
inline constexpr std::size_t kSettingsBedLeft = 21;
inline constexpr std::size_t kSettingsBedBottom = 22;
inline constexpr std::size_t kSettingsBedRight = 23;
inline constexpr std::size_t kSettingsColorFlag = 24;

inline constexpr std::uint32_t kScanModeColor = 1;
inline constexpr std::uint32_t kScanModeGray = 6;

// First 24 bytes of a data packet's payload.
struct ScanDataHeader {
    std::uint32_t unused0;
    std::uint32_t unused1;
    std::uint32_t rows;
    std::uint32_t bytesPerPixel;
    std::uint32_t pixelsPerRow;
    std::uint32_t rowPitchPixels;
};
static_assert(sizeof(ScanDataHeader) == 24);
inline constexpr std::uint32_t kScanDataHeaderSize = 24;

inline constexpr float kHundredths = 100.0f;

// Library result codes.
inline constexpr int kScanLibErrGeneric = 1001;
inline constexpr int kScanLibErrRead = 1002;
inline constexpr int kScanLibErrWrite = 1003;
inline constexpr int kScanLibErrUnsupportedDevice = 1004;
inline constexpr int kScanLibErrDeviceNotFound = 1005;
inline constexpr int kScanLibErrNotOpen = 1006;
inline constexpr int kScanLibErrBusy = 1007;
inline constexpr int kScanLibErrNotLocked = 1008;
inline constexpr int kScanLibErrCreateFile = 1009;
inline constexpr int kScanLibErrWriteFile = 1010;
inline constexpr int kScanLibErrTimeout = 1011;
inline constexpr int kScanLibErrAborted = 1012;
inline constexpr int kScanLibErrBadResolution = 1013;

// Time-outs, in milliseconds.
inline constexpr std::uint32_t kNoDataTimeOut = 5000;
inline constexpr std::uint32_t kCompletionTimeOut = 0;
// Writes get a bound too: a wedged bulk-out pipe must not hang the engine.
inline constexpr std::uint32_t kWriteTimeOut = 5000;
inline constexpr std::uint32_t kStreamTimeOut = 30000;
inline constexpr std::uint32_t kFirstDataTimeOut = 90000;

// Big-endian word access that never assumes alignment.
inline std::uint32_t loadBE32(const std::uint8_t* p)
{
    return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) | p[3];
}
inline void storeBE32(std::uint8_t* p, std::uint32_t v)
{
    p[0] = std::uint8_t(v >> 24);
    p[1] = std::uint8_t(v >> 16);
    p[2] = std::uint8_t(v >> 8);
    p[3] = std::uint8_t(v);
}

}  // namespace zentary
