// The engine's handle on the scanner: finds the device, opens a session with
// its own scan thread, reserves the scanner, turns a scan request into the
// scanner's settings record, starts and stops scans, keeps their progress and
// announces their end with "ScanCompletedNotification" or
// "ScanAbortedNotification".
//
// Threads. A ScanDevice is used on one thread running a zentary::RunLoop (the
// engine's loop thread); openSession must be called there, and that thread
// receives every call back from the scan thread and posts the notifications.
// The scan thread runs its own RunLoop. Calls from the session into the scan
// thread wait for it while they keep serving the session's loop, so
// scanDone, which waits for the session's thread, cannot deadlock them.
//
// Decisions where the behaviour was open:
// - closeSession during a scan cancels it, then waits (running the session's
//   loop, at most kScanDoneWait) for the job's scanDone before it unlocks,
//   so the unlock exchange never overlaps the scan thread's reads.
// - Every wait has a bound: a call into the scan thread waits at most
//   kThreadCallWait (longer than the longest USB read of a job step); the scan
//   thread waits at most kScanDoneWait for the session to take scanDone.
// - The scan thread's object and loop are owned here (mSessionThread) and
//   end with the session; nothing survives closeSession.
// - A raw file of a job that fails is removed by the scan thread, and a job
//   that ends without the image end gets its header's row count set to the
//   rows written: a raw file is either complete or gone.
// - A data packet that is malformed (length below 24, more than
//   kMaxDataPacketSize, rows that do not fit the bytes received, a width above
//   the row pitch, a width or pixel size other than the job's, or data after
//   the image end) ends the job as a read error, kScanLibErrRead.
// - A pixel buffer that cannot grow ends the job with kScanLibErrGeneric.
// - A settings reply with a payload other than 100 bytes is drained and
//   refused with kScanLibErrRead.
// - The second column of the model table (attribute 1) is kept but unused.
// - The session's scan state is idle before the end-of-scan notification is
//   posted, so observers may start another scan or close the session.
// - unlockScanner during a scan does nothing: the scan thread owns the pipe.
//   closeSession ends the scan thread before it sends the unlock.
// - The lock of a completed scan's raw file (RawFileLock) passes from the
//   scan thread to the device with scanDone and is held until the engine has
//   removed the file (seen at the next lockScanner or closeSession) or the
//   device goes, so no other process's sweep takes a scan still to transfer.
// - Destruction neither unlocks nor stops a scan (the engine closes the
//   session first); it ends the scan thread, dropping a running job's file,
//   and posts nothing.
#pragma once

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "scanlib/ScanProtocol.h"
#include "scanlib/ScanThread.h"
#include "scanlib/usb/USBDevice.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace zentary {

struct ScanRect {
    float x = 0;  // inches from the bed's top-left corner
    float y = 0;
    float width = 0;
    float height = 0;
};

// A crop as the scanner's settings record carries it: hundredths of an inch
// from the bed's top-left corner.
struct ScanArea {
    std::int32_t left = 0, top = 0, right = 0, bottom = 0;
};

// The area startScanWithCrop sends for `crop`.
ScanArea scanAreaForCrop(const ScanRect& crop);
// The pixels a scan at `dpi` has across `hundredths` of an inch. The scan
// thread sizes its frame's rows with this, and the scanner counts its
// columns the same way, so a caller that needs the frame's size before the
// scan (a frontend's estimate) gets the size the scan will announce.
std::uint32_t pixelsAcross(std::uint32_t hundredths, std::int32_t dpi);

enum ScanState { kScanStateIdle = 0, kScanStateScanning = 1, kScanStateStopping = 2 };

inline constexpr std::uint16_t kScannerVendorID = 0x2E5D;
inline constexpr std::uint16_t kScannerProductID = 0x4A21;
inline constexpr std::chrono::milliseconds kBufferResetWait{300};
inline constexpr std::chrono::milliseconds kScanDoneWait{10000};
inline constexpr std::chrono::milliseconds kThreadCallWait{kFirstDataTimeOut + 5000};

extern const char* const sScanCompletedNotification;
extern const char* const sScanAbortedNotification;

class ScanDevice : private ScanThreadParent {
public:
    // Null when the model is unknown or no such device is found. The device
    // transport follows ZENTARY_SCANNER (see USBDevice.h).
    static std::unique_ptr<ScanDevice> scanDeviceWithVID(std::int32_t vid, std::int32_t pid,
                                                         const std::optional<std::string>& serialNumber,
                                                         NotificationCenter& center = NotificationCenter::defaultCenter());
    // A session on a device we were handed (tests, other transports).
    static std::unique_ptr<ScanDevice> scanDeviceWithUSBDevice(std::int32_t pid, std::unique_ptr<USBDevice> device,
                                                               NotificationCenter& center = NotificationCenter::defaultCenter());

    explicit ScanDevice(NotificationCenter& center = NotificationCenter::defaultCenter());
    ~ScanDevice();
    ScanDevice(const ScanDevice&) = delete;
    ScanDevice& operator=(const ScanDevice&) = delete;

    int setDeviceFromVID(std::int32_t vid, std::int32_t pid, const std::optional<std::string>& andSerialNumber);

    // Returns before the scan thread has reported in: isSessionOpen() turns
    // true once the session's loop has run the thread's setServer.
    int openSession();
    bool isSessionOpen() const;
    void closeSession();

    int lockScanner();
    void unlockScanner();
    bool isLocked() const;

    void setColorType(int colorType);
    int setResolution(std::int32_t dpi);
    void setOutputFile(std::string path);
    // Rows of the next scans go to `sink` (which must outlive them) instead
    // of the output file; null goes back to the file.
    void setRowSink(ScanRowSink* sink) { mRowSink = sink; }

    int startScan();
    int startScanWithCrop(ScanRect crop);
    void stopScan();
    float scanProgress() const { return mProgress; }

    // For diagnosis: the code the last scan ended with, and the first error
    // of that scan (the reason for a cancel that then ended as aborted).
    int lastScanError() const { return mLastScanError; }
    int lastScanCause() const { return mLastScanCause; }
    int scanState() const { return mState; }
    ScanRect makeFullSizeRect();

private:
    void setServer(ScanThread* server, std::int32_t tag) override;
    void setScanProgress(float progress) override;
    void scanDone(int error) override;

    bool setDevAttrsFromPID(std::int32_t pid);
    bool validateDPI(std::int32_t dpi) const;
    void endScanThread();
    void releaseRemovedRawFile();

    struct Session;  // the scan thread's loop and its bridge back to us

    NotificationCenter& mCenter;
    std::int32_t mScanAttrsIndex = -1;
    std::unique_ptr<USBDevice> mUsbDevice;
    USBInterface* mInterface = nullptr;  // owned by mUsbDevice
    ScanThread* mScanThread = nullptr;   // lives on, and is owned by, the scan thread
    bool mLocked = false;
    int mState = kScanStateIdle;
    float mProgress = 0;
    int mColorType = kColorTypeColor;
    std::int32_t mDPI = 300;
    std::optional<std::string> mFilePath;
    RawFileLock mRawFile;  // the completed scan's file, until it is removed
    ScanRowSink* mRowSink = nullptr;
    int mLastScanError = 0;
    int mLastScanCause = 0;
    bool mDestroying = false;
    std::unique_ptr<Session> mSession;
};

}  // namespace zentary
