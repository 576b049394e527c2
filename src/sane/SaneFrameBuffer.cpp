#include "sane/SaneFrameBuffer.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "scanlib/ScanProtocol.h"

namespace zentary::sane {

namespace {

// Bigger frames than any the glass allows at the highest resolution are a
// broken header, not a scan: refuse them before sizes overflow an int.
constexpr std::uint32_t kMaxDimension = 1u << 16;
// How often a waiting reader looks at a cancel asked from a signal handler,
// which can set a flag but not wake a condition variable.
constexpr std::chrono::milliseconds kCancelSlice{50};

void raise(int fd)
{
    std::uint64_t one = 1;
    ssize_t written = ::write(fd, &one, sizeof one);
    (void)written;  // a full counter is still readable, which is all we want
}

}  // namespace

SaneFrameBuffer::SaneFrameBuffer(std::size_t capacity)
    : mCapacity(capacity), mReady(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
}

void SaneFrameBuffer::reset(bool gray)
{
    std::lock_guard<std::mutex> guard(mMutex);
    mGray = gray;
    mRing.clear();
    mRing.shrink_to_fit();
    mHead = mFill = 0;
    mFrameKnown = mFramePromised = false;
    mFrame = {};
    mTotal = mProduced = mConsumed = 0;
    mFinished = mAborted = false;
    mEndStatus = SANE_STATUS_EOF;
    // Also whatever a cancel's wake() left in the counter.
    std::uint64_t drained;
    while (::read(mReady.get(), &drained, sizeof drained) > 0) {
    }
    mSignalled = false;
}

bool SaneFrameBuffer::readyLocked() const
{
    return mFill > 0 || mFinished || mAborted || (mFrameKnown && mConsumed >= mTotal);
}

void SaneFrameBuffer::updateReadyLocked()
{
    bool ready = readyLocked();
    if (ready && !mSignalled) {
        raise(mReady.get());
        mSignalled = true;
    } else if (!ready && mSignalled) {
        std::uint64_t drained;
        while (::read(mReady.get(), &drained, sizeof drained) > 0) {
        }
        mSignalled = false;
    }
}

int SaneFrameBuffer::beginImage(const RawFileHeader& header)
{
    std::lock_guard<std::mutex> guard(mMutex);
    if (mAborted) return 0;
    bool gray = header.colorType == std::uint32_t(kColorTypeGray);
    // Only what we asked for: a frame of another kind would not be the frame
    // the frontend set up for.
    if (gray != mGray || header.bytesPerPixel != (gray ? 1u : 4u) || header.bitsPerSample != 8 ||
        header.pixelsPerRow == 0 || header.pixelsPerRow >= kMaxDimension || header.rows == 0 ||
        header.rows >= kMaxDimension)
        return kScanLibErrRead;
    if (mFramePromised && SANE_Int(header.pixelsPerRow) != mFrame.pixels_per_line) return kScanLibErrRead;
    mFrame.format = gray ? SANE_FRAME_GRAY : SANE_FRAME_RGB;
    mFrame.last_frame = SANE_TRUE;
    mFrame.pixels_per_line = SANE_Int(header.pixelsPerRow);
    mFrame.bytes_per_line = SANE_Int(header.pixelsPerRow * (gray ? 1 : 3));
    if (!mFramePromised) mFrame.lines = SANE_Int(header.rows);
    mFrame.depth = 8;
    mInPixelBytes = header.bytesPerPixel;
    mTotal = std::uint64_t(mFrame.lines) * std::uint64_t(mFrame.bytes_per_line);
    // A small frame needs no more than itself; a row always fits.
    std::size_t size = std::size_t(std::min<std::uint64_t>(mTotal, mCapacity));
    size = std::max(size, std::size_t(mFrame.bytes_per_line));
    mRing.assign(size, 0);
    mRow.assign(std::size_t(mFrame.bytes_per_line), 0);
    mFrameKnown = true;
    updateReadyLocked();
    mChanged.notify_all();
    return 0;
}

int SaneFrameBuffer::appendRows(const std::uint8_t* base, std::uint32_t rows, std::size_t rowBytes,
                                std::size_t pitchBytes)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mAborted) return 0;
    if (!mFrameKnown || rowBytes != std::size_t(mFrame.pixels_per_line) * mInPixelBytes) return kScanLibErrRead;
    const std::size_t outRow = mRow.size();
    for (std::uint32_t r = 0; r < rows; ++r) {
        if (mAborted) return 0;
        // Rows past the announced height have no place in the frame.
        if (mProduced >= mTotal) return 0;
        const std::uint8_t* in = base + std::size_t(r) * pitchBytes;
        if (mInPixelBytes == 1) {
            std::memcpy(mRow.data(), in, outRow);
        } else {
            // x R G B from the scanner, R G B for the frontend.
            std::uint8_t* out = mRow.data();
            for (std::size_t p = 0; p < outRow / 3; ++p, in += 4, out += 3) {
                out[0] = in[1];
                out[1] = in[2];
                out[2] = in[3];
            }
        }
        std::size_t done = 0;
        while (done < outRow) {
            mChanged.wait(lock, [this] { return mAborted || mFill < mRing.size(); });
            if (mAborted) return 0;
            std::size_t tail = (mHead + mFill) % mRing.size();
            std::size_t count = std::min({outRow - done, mRing.size() - mFill, mRing.size() - tail});
            std::memcpy(mRing.data() + tail, mRow.data() + done, count);
            mFill += count;
            done += count;
            updateReadyLocked();
            mChanged.notify_all();
        }
        mProduced += outRow;
    }
    return 0;
}

int SaneFrameBuffer::endImage(std::uint32_t)
{
    // Rows the scanner did not send are made up as blank paper at the end:
    // the frame keeps the size the frontend was told.
    return 0;
}

void SaneFrameBuffer::finish(SANE_Status status)
{
    std::lock_guard<std::mutex> guard(mMutex);
    mFinished = true;
    // A scan that completed without announcing a frame delivered nothing.
    mEndStatus = status == SANE_STATUS_GOOD && !mFrameKnown ? SANE_STATUS_IO_ERROR : status;
    updateReadyLocked();
    mChanged.notify_all();
}

void SaneFrameBuffer::abort()
{
    std::lock_guard<std::mutex> guard(mMutex);
    mAborted = true;
    updateReadyLocked();
    mChanged.notify_all();
}

void SaneFrameBuffer::wake()
{
    raise(mReady.get());
}

SANE_Parameters SaneFrameBuffer::frame(Clock::time_point deadline, const std::atomic<bool>& cancel,
                                       const SANE_Parameters& estimate)
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mFrameKnown && !mFramePromised && !mFinished && !mAborted && !cancel.load() && Clock::now() < deadline)
        mChanged.wait_for(lock, std::min<Clock::duration>(kCancelSlice, deadline - Clock::now()));
    if (!mFrameKnown && !mFramePromised) {
        mFrame = estimate;
        mFramePromised = true;
    }
    return mFrame;
}

std::size_t SaneFrameBuffer::takeLocked(SANE_Byte* data, std::size_t wanted)
{
    std::size_t taken = 0;
    while (taken < wanted && mFill > 0) {
        std::size_t count = std::min({wanted - taken, mFill, mRing.size() - mHead});
        std::memcpy(data + taken, mRing.data() + mHead, count);
        mHead = (mHead + count) % mRing.size();
        mFill -= count;
        taken += count;
    }
    mConsumed += taken;
    return taken;
}

SANE_Status SaneFrameBuffer::read(SANE_Byte* data, SANE_Int maxLength, SANE_Int* length, bool block,
                                  const std::atomic<bool>& cancel, std::chrono::milliseconds quietLimit)
{
    *length = 0;
    std::unique_lock<std::mutex> lock(mMutex);
    auto deadline = Clock::now() + quietLimit;
    for (;;) {
        if (cancel.load() || mAborted) return SANE_STATUS_CANCELLED;
        if (std::size_t taken = takeLocked(data, std::size_t(maxLength)); taken > 0 || maxLength == 0) {
            updateReadyLocked();
            mChanged.notify_all();
            *length = SANE_Int(taken);
            return SANE_STATUS_GOOD;
        }
        if (mFrameKnown && mConsumed >= mTotal) return SANE_STATUS_EOF;
        if (mFinished) {
            if (mEndStatus != SANE_STATUS_GOOD) return mEndStatus;
            // The scanner ended the page early: the rows it never sent are
            // blank paper.
            std::size_t count = std::size_t(std::min<std::uint64_t>(mTotal - mConsumed, std::uint64_t(maxLength)));
            std::memset(data, 0xFF, count);
            mConsumed += count;
            *length = SANE_Int(count);
            return SANE_STATUS_GOOD;
        }
        if (!block) return SANE_STATUS_GOOD;
        auto now = Clock::now();
        if (now >= deadline) return SANE_STATUS_IO_ERROR;
        mChanged.wait_for(lock, std::min<Clock::duration>(kCancelSlice, deadline - now));
    }
}

bool SaneFrameBuffer::isDrained()
{
    std::lock_guard<std::mutex> guard(mMutex);
    return mFrameKnown && mConsumed >= mTotal;
}

}  // namespace zentary::sane
