// The rows of the frame being scanned, on their way from the scan thread to
// sane_read: a ring of bounded size in memory. Nothing of the image is ever
// written to disk, and the memory a scan takes does not grow with the page.
//
// The scan thread fills the ring (converting the scanner's x R G B pixels to
// SANE's R G B on the way) and waits when it is full: a frontend that reads
// slowly slows the scan, it does not fill the machine. The frontend empties
// it through read().
//
// The select fd is an eventfd that is readable exactly when read() has an
// answer at once: bytes in the ring, the frame's end (EOF or the error) or
// a cancel. Its state is changed only together with the ring's, under the
// same lock, so the two never disagree.
#pragma once

#include <sane/sane.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "platform/Files.h"
#include "scanlib/ScanRowSink.h"

namespace zentary::sane {

class SaneFrameBuffer final : public ScanRowSink {
public:
    using Clock = std::chrono::steady_clock;

    explicit SaneFrameBuffer(std::size_t capacity);
    SaneFrameBuffer(const SaneFrameBuffer&) = delete;
    SaneFrameBuffer& operator=(const SaneFrameBuffer&) = delete;

    bool isValid() const { return bool(mReady); }
    int selectFd() const { return mReady.get(); }

    // Before a scan (no producer runs): empty, expecting a gray or colour frame.
    void reset(bool gray);

    // The scan thread's side.
    int beginImage(const RawFileHeader& header) override;
    int appendRows(const std::uint8_t* base, std::uint32_t rows, std::size_t rowBytes,
                   std::size_t pitchBytes) override;
    int endImage(std::uint32_t rows) override;

    // The scan ended: completed (the missing rows, if any, are blank paper)
    // or failed with `status`.
    void finish(SANE_Status status);
    // Nobody will read any more (cancel, close): the scan thread stops
    // waiting, and rows are dropped until the caller's cancel ends the job
    // (one cancel, from the caller, rather than a second one from the
    // scan thread).
    void abort();
    // Async-signal-safe: makes the select fd readable, nothing else.
    void wake();

    // The frame, once the scanner has announced it. If it has not by
    // `deadline`, the scan's end or a cancel, `estimate` becomes the frame
    // and the scan is held to it: a frontend that was told a size gets
    // exactly that many bytes (rows past it dropped, rows missing blank),
    // and an announcement of another width fails the scan.
    SANE_Parameters frame(Clock::time_point deadline, const std::atomic<bool>& cancel,
                          const SANE_Parameters& estimate);
    // sane_read: GOOD with bytes, GOOD with none (non-blocking and nothing
    // there yet), EOF, CANCELLED, or the scan's error. A blocking read that
    // sees nothing arrive for `quietLimit` gives up with an I/O error.
    SANE_Status read(SANE_Byte* data, SANE_Int maxLength, SANE_Int* length, bool block,
                     const std::atomic<bool>& cancel, std::chrono::milliseconds quietLimit);
    // Whether every byte of the frame has been handed out.
    bool isDrained();

private:
    bool readyLocked() const;
    void updateReadyLocked();
    std::size_t takeLocked(SANE_Byte* data, std::size_t wanted);

    const std::size_t mCapacity;
    files::UniqueFd mReady;  // eventfd
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mSignalled = false;  // mReady's counter is non-zero because of us

    bool mGray = false;
    std::vector<std::uint8_t> mRing, mRow;
    std::size_t mHead = 0, mFill = 0;
    bool mFrameKnown = false;
    bool mFramePromised = false;  // mFrame was told before the scanner announced it
    SANE_Parameters mFrame{};
    std::uint32_t mInPixelBytes = 0;
    std::uint64_t mTotal = 0, mProduced = 0, mConsumed = 0;
    bool mFinished = false, mAborted = false;
    SANE_Status mEndStatus = SANE_STATUS_EOF;
};

}  // namespace zentary::sane
