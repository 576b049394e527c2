// The emulated scanner: the device side of the packet protocol, with the test
// chart on its glass. It sees only bytes on its two bulk pipes, so the same
// model sits behind the in-process transport and behind umockdev's emulated
// usbfs node. Thread-safe: the host may write a cancel from one thread while
// another reads.
#pragma once

#include "emulator/EmulatorOptions.h"
#include "emulator/PageImage.h"
#include "scanlib/ScanProtocol.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zentary {

inline constexpr std::uint16_t kEmulatorVendorID = 0x2E5D;
inline constexpr std::uint16_t kEmulatorProductID = 0x4A21;
inline constexpr std::uint16_t kEmulatorBulkOutMaxPacketSize = 512;

class ScannerModel {
public:
    explicit ScannerModel(EmulatorOptions options = {});

    // Host to device: one bulk-out transfer. Returns a USB result.
    int receive(const std::uint8_t* data, std::uint32_t size);
    // Device to host: one bulk-in transfer of at most `size` bytes; it ends
    // at the end of the device's current message, as a short packet would.
    int send(std::uint8_t* data, std::uint32_t size, std::uint32_t* received);

    std::uint16_t bulkInMaxPacketSize() const { return mOptions.maxPacketSize; }
    const EmulatorOptions& options() const { return mOptions; }
    // Why the picture named by the options could not be put on the glass;
    // empty when there is none or it loaded. A model with an error scans white.
    const std::string& pageError() const { return mPageError; }

    // For tests: how often the host sent a command, and the device's state.
    int commandCount(std::uint32_t message) const;
    bool isLocked() const;
    bool isScanning() const;
    ScannerSettings settings() const;

private:
    struct Job {
        bool active = false;
        int stage = 0;
        bool color = true;
        std::uint32_t dpi = 300, top = 0, left = 0;
        std::uint32_t width = 0, rows = 0, pitch = 0, bytesPerPixel = 4, rowsPerPacket = 1;
        std::uint32_t rowsSent = 0;
        std::array<std::vector<std::uint8_t>, 8> rowCache;
        std::vector<std::uint32_t> pageColumns;  // the picture's column under each pixel
    };

    void reply(std::uint32_t message, std::uint32_t status, const std::uint8_t* payload = nullptr,
               std::uint32_t length = 0, std::uint32_t announced = 0);
    std::uint32_t settingsStatus(const ScannerSettings& proposed) const;
    void startJob();
    // Puts the next message in mCurrent; false when there is none, or when a
    // fault has just struck (mStalled, mSilent, mGone tell which).
    bool nextMessage();
    void buildDataPacket();
    const std::vector<std::uint8_t>& cachedRow(std::uint32_t rowClass);
    void pageRow(std::uint32_t glassY, std::uint8_t* out) const;
    const EmulatorFaultRule* fault(EmulatorFault kind) const;
    bool faultHitsPacket(EmulatorFault kind, std::uint32_t firstRow, std::uint32_t count);
    void throttle(std::uint32_t bytes);
    void showLock();  // the lock file follows mLocked

    EmulatorOptions mOptions;
    std::shared_ptr<const PageImage> mPage;  // null: the chart
    std::string mPageError;
    mutable std::mutex mMutex;
    bool mLocked = false;
    bool mStalled = false, mSilent = false, mGone = false;
    std::uint32_t mNotReadyLeft = 0;
    std::array<bool, 16> mFaultFired{};
    std::array<int, 32> mCommandCounts{};
    ScannerSettings mSettings;
    ScannerSettings mDefaults;
    std::deque<std::vector<std::uint8_t>> mReplies;
    std::vector<std::uint8_t> mCurrent;
    std::size_t mCurrentPos = 0;
    Job mJob;
    // Throughput limit bookkeeping.
    std::chrono::steady_clock::time_point mRateStart{};
    double mRateBytes = 0;
};

}  // namespace zentary
