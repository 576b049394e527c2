// One open device of the backend: a scanner session on the backend's loop
// thread, its options, and the scan being read.
//
// Streaming. The scan thread writes the raw file (header, then rows) while
// the scan runs; we open that file as soon as the scan has started, unlink
// it at once (so no exit path, not even a kill, leaves it behind) and follow
// it as it grows. An inotify watch on the file and an eventfd raised at the
// end of the scan or on a cancel sit in one epoll set, which is the select
// fd the frontend gets: it turns readable whenever sane_read has something
// new to say.
//
// Cancel. sane_cancel may come from another thread or from a signal handler
// (scanimage calls it on SIGINT), so it only sets a flag and writes the
// eventfd. A timer on the loop thread, running while a scan does, sees the
// flag and stops the scan; a reader sees it and waits for the scan's end.
#pragma once

#include <sane/sane.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Files.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "sane/SaneConfig.h"
#include "sane/SaneOptions.h"

namespace zentary {
class Capabilities;
class ScanDevice;
}  // namespace zentary

namespace zentary::sane {

// Our own names; the dll loader shows them as "zentary:<name>".
inline constexpr const char* kEmulatorDeviceName = "emulator";
inline constexpr const char* kUsbDeviceName = "usb";

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
    enum class Phase { Idle, Scanning, Done };

    explicit SaneSession(RunLoop& loop);
    SANE_Status openDevice(const std::string& deviceName, const SaneConfig& config);
    void scanEnded(bool completed);           // loop thread
    void pollCancel();                        // loop thread, by timer
    bool waitForScanEnd(std::chrono::milliseconds limit);
    void stopScanAndWait();
    void releaseScan();
    SANE_Status finishCancel();
    SANE_Status failScan(SANE_Status status);
    bool waitForChange(int timeoutMs);
    void drainWatch();
    int loadFrame();  // 1 once the raw header is read and checked, 0 not yet, -1 unusable
    SANE_Parameters estimate() const;
    std::uint64_t rawBytesAvailable();
    SANE_Int produce(SANE_Byte* data, SANE_Int maxLength);

    RunLoop& mLoop;
    NotificationCenter mCenter;
    std::unique_ptr<Capabilities> mCapabilities;
    std::unique_ptr<ScanDevice> mScanner;  // made, used and destroyed on mLoop
    std::vector<NotificationCenter::Token> mObservers;
    SaneOptions mOptions;
    bool mClosing = false;  // loop thread

    files::UniqueFd mEpoll;
    files::UniqueFd mWake;  // eventfd: scan ended or cancel asked
    std::atomic<bool> mCancelRequested{false};

    std::mutex mMutex;  // guards mScanEnded, mScanCompleted, mCancelTimer
    std::condition_variable mEndedCondition;
    bool mScanEnded = false;
    bool mScanCompleted = false;
    std::optional<RunLoop::TimerId> mCancelTimer;

    // The scan being read; touched by the frontend's calls only.
    Phase mPhase = Phase::Idle;
    SANE_Status mEndStatus = SANE_STATUS_EOF;  // what read() says once Done
    bool mNonBlocking = false;
    ScanRequest mRequest;
    files::UniqueFd mRaw;
    files::UniqueFd mWatch;  // inotify on mRaw
    bool mFrameKnown = false;
    SANE_Parameters mFrame{};
    std::uint32_t mRawPixelBytes = 0;
    std::uint64_t mRawTotal = 0, mRawRead = 0;    // pixel bytes of the raw file
    std::uint64_t mOutTotal = 0, mOutWritten = 0;  // bytes promised and handed out
    std::vector<SANE_Byte> mRawBuffer, mPending;
    std::size_t mPendingPos = 0;
};

}  // namespace zentary::sane
