// One open device of the backend: a scanner session on the backend's loop
// thread, its options, and the frame being read.
//
// Streaming. The scan thread hands each data packet's rows to the session's
// frame buffer (a bounded ring in memory, see SaneFrameBuffer.h), which
// sane_read empties; its eventfd is the select fd.
//
// Cancel. sane_cancel may come from another thread or from a signal handler
// (scanimage calls it on SIGINT), so it only sets a flag and makes the select
// fd readable. A timer on the loop thread, running while a scan does, sees
// the flag, releases the scan thread from the buffer and stops the scan; a
// reader sees it and waits for the scan's end.
#pragma once

#include <sane/sane.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "sane/SaneConfig.h"
#include "sane/SaneFrameBuffer.h"
#include "sane/SaneOptions.h"

namespace zentary {
class Capabilities;
class ScanDevice;
}  // namespace zentary

namespace zentary::sane {

// Our own names; the dll loader shows them as "zentary:<name>". A USB
// scanner is named by where it is plugged in, "libusb:BBB:DDD".
inline constexpr const char* kEmulatorDeviceName = "emulator";
inline constexpr const char* kUsbDevicePrefix = "libusb:";

class SaneSession {
public:
    // `loop` runs on the backend's loop thread and outlives the session.
    static SANE_Status open(const std::string& deviceName, const SaneConfig& config, RunLoop& loop,
                            std::unique_ptr<SaneSession>* session);
    ~SaneSession();
    SaneSession(const SaneSession&) = delete;
    SaneSession& operator=(const SaneSession&) = delete;

    const SANE_Option_Descriptor* descriptor(SANE_Int option) const { return mOptions.descriptor(option); }
    SANE_Status controlOption(SANE_Int option, SANE_Action action, void* value, SANE_Int* info);
    SANE_Status getParameters(SANE_Parameters* parameters);
    SANE_Status start();
    SANE_Status read(SANE_Byte* data, SANE_Int maxLength, SANE_Int* length);
    // Async-signal-safe: a flag and a write(2).
    void cancel();
    SANE_Status setIoMode(SANE_Bool nonBlocking);
    SANE_Status getSelectFd(SANE_Int* fd);

private:
    // Idle: no frame. Scanning: a frame is being read. Done: sane_read has
    // said how the frame ended and keeps saying it until cancel or start.
    enum class Phase { Idle, Scanning, Done };

    explicit SaneSession(RunLoop& loop);
    SANE_Status openDevice(const std::string& deviceName, const SaneConfig& config);
    SANE_Status startOnLoop();                // loop thread
    void scanEnded(bool completed);           // loop thread
    void pollCancel();                        // loop thread, by timer
    bool waitForScanEnd(std::chrono::milliseconds limit);
    void stopScanAndWait();
    SANE_Status finishCancel();
    SANE_Parameters estimate(const ScanRequest& request) const;

    RunLoop& mLoop;
    NotificationCenter mCenter;
    SaneFrameBuffer mBuffer;  // before mScanner: the scan thread may write to it until mScanner is gone
    std::unique_ptr<Capabilities> mCapabilities;
    std::unique_ptr<ScanDevice> mScanner;  // made, used and destroyed on mLoop
    std::vector<NotificationCenter::Token> mObservers;
    SaneOptions mOptions;
    bool mClosing = false;  // loop thread

    std::atomic<bool> mCancelRequested{false};

    std::mutex mMutex;  // guards mScanEnded, mCancelTimer
    std::condition_variable mEndedCondition;
    bool mScanEnded = true;
    std::optional<RunLoop::TimerId> mCancelTimer;

    // Touched by the frontend's calls only.
    Phase mPhase = Phase::Idle;
    SANE_Status mEndStatus = SANE_STATUS_EOF;  // what read() says once Done
    bool mNonBlocking = false;
    ScanRequest mRequest;
};

}  // namespace zentary::sane
