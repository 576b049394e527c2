// The worker of one scanner session. It runs on its own RunLoop: every call
// from the session (startScanToFile, stopScan, exit) is a task on that loop,
// and a running job is a chain of steps, each reading one packet from the
// scanner, re-posted after itself so that calls from the session get their
// turn between two packets. Progress and the end of a job go back to the
// session through ScanThreadParent.
#pragma once

#include "platform/RunLoop.h"
#include "scanlib/RawFile.h"
#include "scanlib/ScanProtocol.h"
#include "scanlib/ScanRowSink.h"
#include "scanlib/usb/USBInterface.h"

#include <cstdint>
#include <memory>
#include <string>

namespace zentary {

class ScanThread;

// Implemented by the session. The calls arrive on the scan thread; the
// implementation carries them over to the session's own thread.
class ScanThreadParent {
public:
    virtual void setServer(ScanThread* server, std::int32_t tag) = 0;
    virtual void setScanProgress(float progress) = 0;  // must not block
    virtual void scanDone(int error) = 0;               // may wait, bounded

protected:
    virtual ~ScanThreadParent() = default;
};

inline constexpr std::int32_t kScanThreadSignature = 0x53636E54;  // 'ScnT'

enum JobState { kJobIdle = 0, kJobStarted = 1, kJobScanning = 2, kJobImageDone = 3, kJobCancelling = 4 };

// The largest pixel payload we accept in one data packet. A header that
// announces more is malformed: we will not allocate on the device's word.
inline constexpr std::uint32_t kMaxDataPacketSize = 64u * 1024 * 1024;

class ScanThread {
public:
    // `loop` is the run loop of the thread this object lives on.
    ScanThread(ScanThreadParent* parent, std::int32_t tag, USBInterface* interface, RunLoop& loop);
    ~ScanThread();
    ScanThread(const ScanThread&) = delete;
    ScanThread& operator=(const ScanThread&) = delete;

    // Starts a job writing to `path` (created new, see RawFileWriter).
    int startScanToFile(const std::string& path);
    // Starts a job handing its rows to `sink` instead of a file; the sink
    // must outlive the job.
    int startScanToSink(ScanRowSink* sink);
    // Asks the scanner to cancel; the job ends when the scanner's answer (or
    // a failed read) ends it. Does nothing when no job runs.
    void stopScan();
    // Ends any job at once (its file is removed, no scanDone) and stops serving.
    void exit();
    int getLastScanError() const { return mLastError; }
    // The first error of the last job: the reason a job was cancelled, which
    // the code that ends a cancelled job (usually kScanLibErrAborted) hides.
    int getFirstScanError() const { return mFirstError; }
    bool isJobRunning() const { return mJobRunning; }
    // The lock of the last job's finished file, for whoever owns the scan now.
    RawFileLock takeFinishedFile() { return std::move(mFinishedFile); }
    std::int32_t tag() const { return mTag; }

    // One step of a job: reads and handles one packet. Public for fuzzing,
    // which drives the steps on its own loop.
    void readNextPacket();

private:
    int startJob(const std::string& path, ScanRowSink* sink);
    void scheduleStep();
    int handleStartScanJob();
    void readAndProcessScanDataOfLength(std::uint32_t length);
    void writeDataOfLength(std::uint32_t count, const ScanDataHeader& header);
    void endScanning();
    void finishJob();
    int initFileHeaderWithPixelsPerRow(std::uint32_t pixelsPerRow);
    int finalizeFileHeader();
    int readExactly(std::uint8_t* buffer, std::uint32_t size, std::uint32_t timeout, std::uint32_t* received);

    ScanThreadParent* mParent;
    std::int32_t mTag;
    USBInterface* mInterface;
    RunLoop& mLoop;
    bool mExited = false;

    int mLastError = 0;
    int mFirstError = 0;
    int mJobState = kJobIdle;
    bool mJobRunning = false;
    std::int32_t mDPI = 300;
    std::int32_t mColorType = 0;  // the job record's colour flag: 1 colour, 0 gray
    bool mFirstDataPacket = false;
    std::int32_t mNumRowsToScan = 1;
    std::int32_t mTotalScanlines = 0;
    RawFileWriter mFid;
    RawFileLock mFinishedFile;
    ScanRowSink* mSink = nullptr;  // the running job's, instead of mFid
    bool mFileHeaderWritten = false;
    bool mFileHeaderFinal = false;
    std::uint32_t mPixelsPerRow = 0;
    std::unique_ptr<std::uint8_t[]> mDataBufr;
    std::uint32_t mDataBufrSize = 0;
    std::shared_ptr<ScanThread*> mSelf;  // weak handles of queued steps point here
};

}  // namespace zentary
