#include "sane/SaneSession.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "capabilities/Capabilities.h"
#include "emulator/EmulatorTransport.h"
#include "scanlib/RawFile.h"
#include "scanlib/ScanDevice.h"
#include "scanlib/usb/USBDevice.h"

namespace zentary::sane {

namespace {

constexpr const char* kModel = "Tarvell Zentary Q300 series";
// How often the loop thread looks for a cancel asked by a signal handler:
// short against a scan, long against the loop's other work.
constexpr std::chrono::milliseconds kCancelPoll{20};
// Without a byte for this long, the scan thread (whose every USB read is
// bounded) has either ended the scan or is stuck; either way we stop waiting.
constexpr std::chrono::milliseconds kNoProgressWait = kThreadCallWait + kScanDoneWait;
constexpr std::size_t kReadChunk = 1u << 20;
// Bigger frames than any the glass allows at the highest resolution are a
// broken header, not a scan: refuse them before sizes overflow an int.
constexpr std::uint32_t kMaxDimension = 1u << 16;

std::string rawFilePath()
{
    static std::atomic<unsigned> counter{0};
    std::string name = "ZentarySane_" + std::to_string(::getpid()) + "_" + std::to_string(++counter) + ".raw";
    return (files::temporaryDirectory() / name).string();
}

// "emulator:<options>" in ZENTARY_SCANNER also shapes the emulator that the
// backend lists, so tests can inject faults the same way for both doors.
std::string emulatorOptions()
{
    const char* selection = std::getenv("ZENTARY_SCANNER");
    constexpr std::string_view kPrefix = "emulator:";
    if (selection && std::string_view(selection).substr(0, kPrefix.size()) == kPrefix)
        return std::string(selection + kPrefix.size());
    return {};
}

void raise(int fd)
{
    std::uint64_t one = 1;
    ssize_t written = ::write(fd, &one, sizeof one);
    (void)written;  // a full counter is still readable, which is all we want
}

}  // namespace

SaneSession::SaneSession(RunLoop& loop) : mLoop(loop)
{
    mEpoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    mWake.reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
}

SANE_Status SaneSession::open(const std::string& deviceName, const SaneConfig& config, RunLoop& loop,
                              std::unique_ptr<SaneSession>* session)
{
    std::unique_ptr<SaneSession> opened(new SaneSession(loop));
    SANE_Status status = opened->openDevice(deviceName, config);
    if (status == SANE_STATUS_GOOD) *session = std::move(opened);
    return status;
}

SANE_Status SaneSession::openDevice(const std::string& deviceName, const SaneConfig& config)
{
    if (!mEpoll || !mWake) return SANE_STATUS_NO_MEM;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = mWake.get();
    if (::epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mWake.get(), &event) != 0) return SANE_STATUS_NO_MEM;

    std::string error;
    mCapabilities = Capabilities::initWithModel(kModel, false, config.capabilitiesDir, &error);
    if (!mCapabilities || !mOptions.load(mCapabilities.get(), &error)) return SANE_STATUS_IO_ERROR;

    return callOn(mLoop, [&]() -> SANE_Status {
        std::unique_ptr<USBDevice> usb;
        if (deviceName == kEmulatorDeviceName) {
            if (auto backend = makeEmulatorDevice(kScannerVendorID, kScannerProductID, std::nullopt, emulatorOptions()))
                usb = std::make_unique<USBDevice>(std::move(backend));
        } else if (deviceName == kUsbDeviceName) {
            usb = USBDevice::libusbDeviceWithVid(kScannerVendorID, kScannerProductID, std::nullopt);
        }
        // A scanner listed a moment ago may have been unplugged since.
        if (!usb) return SANE_STATUS_INVAL;
        mScanner = ScanDevice::scanDeviceWithUSBDevice(kScannerProductID, std::move(usb), mCenter);
        if (!mScanner) return SANE_STATUS_INVAL;
        mObservers.push_back(mCenter.addObserver(sScanCompletedNotification, [this] { scanEnded(true); }));
        mObservers.push_back(mCenter.addObserver(sScanAbortedNotification, [this] { scanEnded(false); }));
        if (mScanner->openSession() != 0) return SANE_STATUS_IO_ERROR;
        bool open = mLoop.runUntil([this] { return mScanner->isSessionOpen(); },
                                   RunLoop::Clock::now() + kThreadCallWait);
        return open ? SANE_STATUS_GOOD : SANE_STATUS_IO_ERROR;
    });
}

SaneSession::~SaneSession()
{
    mCancelRequested = true;
    try {
        callOn(mLoop, [this] {
            mClosing = true;
            {
                std::lock_guard<std::mutex> guard(mMutex);
                if (mCancelTimer) mLoop.cancel(*mCancelTimer);
                mCancelTimer.reset();
            }
            // Ends a running scan and waits for its end before unlocking.
            if (mScanner) mScanner->closeSession();
            for (NotificationCenter::Token token : mObservers) mCenter.removeObserver(token);
            mScanner.reset();
        });
    } catch (...) {
        // The loop is gone (the frontend unloads us without sane_exit): the
        // scanner device goes with the members below, on this thread.
    }
    releaseScan();
}

void SaneSession::scanEnded(bool completed)
{
    // During closeSession the session unlocks by itself, after the scan thread
    // is gone.
    if (!mClosing && mScanner) mScanner->unlockScanner();
    std::lock_guard<std::mutex> guard(mMutex);
    if (mCancelTimer) mLoop.cancel(*mCancelTimer);
    mCancelTimer.reset();
    mScanEnded = true;
    mScanCompleted = completed;
    raise(mWake.get());
    mEndedCondition.notify_all();
}

void SaneSession::pollCancel()
{
    if (mCancelRequested.load() && mScanner) mScanner->stopScan();
}

void SaneSession::cancel()
{
    mCancelRequested.store(true);
    raise(mWake.get());
}

bool SaneSession::waitForScanEnd(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mEndedCondition.wait_for(lock, limit, [this] { return mScanEnded; });
}

void SaneSession::stopScanAndWait()
{
    try {
        callOn(mLoop, [this] { mScanner->stopScan(); });
    } catch (...) {
        return;
    }
    waitForScanEnd(kNoProgressWait);
}

void SaneSession::releaseScan()
{
    if (mWatch) ::epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, mWatch.get(), nullptr);
    mWatch.reset();
    mRaw.reset();
    mPending.clear();
    mPendingPos = 0;
    mRawBuffer.clear();
    mRawBuffer.shrink_to_fit();
    mPhase = Phase::Idle;
}

SANE_Status SaneSession::finishCancel()
{
    if (mPhase == Phase::Scanning) stopScanAndWait();
    releaseScan();
    return SANE_STATUS_CANCELLED;
}

SANE_Status SaneSession::failScan(SANE_Status status)
{
    if (mPhase == Phase::Scanning) stopScanAndWait();
    releaseScan();
    mPhase = Phase::Done;
    mEndStatus = status;
    return status;
}

SANE_Status SaneSession::controlOption(SANE_Int option, SANE_Action action, void* value, SANE_Int* info)
{
    if (action == SANE_ACTION_SET_VALUE && mPhase == Phase::Scanning) return SANE_STATUS_DEVICE_BUSY;
    return mOptions.control(option, action, value, info);
}

SANE_Parameters SaneSession::estimate() const
{
    const ScanRequest request = mPhase == Phase::Idle ? mOptions.request() : mRequest;
    // The scanner makes hundredths of an inch into pixels this way.
    auto pixels = [&](std::int32_t hundredths) {
        return SANE_Int(std::trunc(float(hundredths) / 100.0f * float(request.dpi)));
    };
    SANE_Parameters parameters{};
    parameters.format = request.gray ? SANE_FRAME_GRAY : SANE_FRAME_RGB;
    parameters.last_frame = SANE_TRUE;
    parameters.pixels_per_line = pixels(request.right - request.left);
    parameters.lines = pixels(request.bottom - request.top);
    parameters.bytes_per_line = parameters.pixels_per_line * (request.gray ? 1 : 3);
    parameters.depth = 8;
    return parameters;
}

SANE_Status SaneSession::getParameters(SANE_Parameters* parameters)
{
    if (!parameters) return SANE_STATUS_INVAL;
    // Once a scan runs, the frame is the one the scanner announces in the
    // raw file's header: that is what read() will deliver.
    if (mPhase == Phase::Scanning && !mFrameKnown) {
        auto deadline = RunLoop::Clock::now() + kThreadCallWait;
        while (!mCancelRequested.load()) {
            drainWatch();
            bool ended;
            {
                std::lock_guard<std::mutex> guard(mMutex);
                ended = mScanEnded;
            }
            if (loadFrame() != 0 || ended || RunLoop::Clock::now() > deadline) break;
            waitForChange(100);
        }
    }
    *parameters = mFrameKnown && mPhase != Phase::Idle ? mFrame : estimate();
    return SANE_STATUS_GOOD;
}

SANE_Status SaneSession::start()
{
    if (mPhase == Phase::Scanning) {
        // The frontend starts again without having read the last scan to its
        // end: that scan is abandoned.
        stopScanAndWait();
        std::lock_guard<std::mutex> guard(mMutex);
        if (!mScanEnded) return SANE_STATUS_DEVICE_BUSY;
    }
    releaseScan();
    std::uint64_t drained;
    while (::read(mWake.get(), &drained, sizeof drained) > 0) {
    }
    mCancelRequested = false;
    mNonBlocking = false;
    mFrameKnown = false;
    mRawRead = mOutWritten = 0;
    mRequest = mOptions.request();
    SANE_Parameters expected = estimate();
    if (expected.pixels_per_line <= 0 || expected.lines <= 0) return SANE_STATUS_INVAL;

    std::string path = rawFilePath();
    {
        std::lock_guard<std::mutex> guard(mMutex);
        mScanEnded = mScanCompleted = false;
    }
    SANE_Status status = callOn(mLoop, [&]() -> SANE_Status {
        int locked = mScanner->lockScanner();
        if (locked == kScanLibErrBusy) return SANE_STATUS_DEVICE_BUSY;
        if (locked != 0) return SANE_STATUS_IO_ERROR;
        mScanner->setColorType(mRequest.gray ? kColorTypeGray : kColorTypeColor);
        if (mScanner->setResolution(mRequest.dpi) != 0) {
            mScanner->unlockScanner();
            return SANE_STATUS_INVAL;
        }
        mScanner->setOutputFile(path);
        // The session truncates inches times 100; a quarter hundredth on top
        // makes it land on exactly the hundredths we mean.
        auto inches = [](std::int32_t hundredths) { return (float(hundredths) + 0.25f) / 100.0f; };
        ScanRect crop{inches(mRequest.left), inches(mRequest.top), inches(mRequest.right - mRequest.left),
                      inches(mRequest.bottom - mRequest.top)};
        if (mScanner->startScanWithCrop(crop) != 0) {
            mScanner->unlockScanner();
            return SANE_STATUS_IO_ERROR;
        }
        std::lock_guard<std::mutex> guard(mMutex);
        if (!mScanEnded) mCancelTimer = mLoop.schedule(kCancelPoll, [this] { pollCancel(); }, kCancelPoll);
        return SANE_STATUS_GOOD;
    });
    if (status != SANE_STATUS_GOOD) return status;
    mPhase = Phase::Scanning;

    // The scan thread created the file before the scan started; a scan that
    // failed at once has removed it again, and then its end tells why.
    mRaw.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    mWatch.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    bool watching = mRaw && mWatch && ::inotify_add_watch(mWatch.get(), path.c_str(), IN_MODIFY) >= 0;
    ::unlink(path.c_str());
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = mWatch.get();
    if (!watching || ::epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mWatch.get(), &event) != 0)
        return failScan(SANE_STATUS_IO_ERROR);
    return SANE_STATUS_GOOD;
}

void SaneSession::drainWatch()
{
    if (!mWatch) return;
    alignas(inotify_event) char events[4096];
    while (::read(mWatch.get(), events, sizeof events) > 0) {
    }
}

bool SaneSession::waitForChange(int timeoutMs)
{
    epoll_event event;
    int ready;
    do {
        ready = ::epoll_wait(mEpoll.get(), &event, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR && !mCancelRequested.load());
    return ready > 0;
}

int SaneSession::loadFrame()
{
    if (mFrameKnown) return 1;
    struct stat status;
    if (!mRaw || ::fstat(mRaw.get(), &status) != 0) return -1;
    if (std::uint64_t(status.st_size) < kRawFileHeaderLength) return 0;
    std::uint8_t bytes[kRawFileHeaderLength];
    if (::pread(mRaw.get(), bytes, sizeof bytes, 0) != ssize_t(sizeof bytes)) return 0;
    RawFileInfo info;
    if (!parseRawFileHeader(bytes, sizeof bytes, std::uint64_t(status.st_size), &info)) return -1;
    const RawFileHeader& header = info.header;
    bool gray = header.colorType == std::uint32_t(kColorTypeGray);
    // Only what we asked for: a frame of another kind would not be the
    // frame the frontend set up for.
    if (gray != mRequest.gray || header.bytesPerPixel != (gray ? 1u : 4u) || header.bitsPerSample != 8 ||
        header.pixelsPerRow >= kMaxDimension || header.rows >= kMaxDimension || header.rows == 0)
        return -1;
    mFrame.format = gray ? SANE_FRAME_GRAY : SANE_FRAME_RGB;
    mFrame.last_frame = SANE_TRUE;
    mFrame.pixels_per_line = SANE_Int(header.pixelsPerRow);
    mFrame.bytes_per_line = SANE_Int(header.pixelsPerRow * (gray ? 1 : 3));
    mFrame.lines = SANE_Int(header.rows);
    mFrame.depth = 8;
    mRawPixelBytes = header.bytesPerPixel;
    mRawTotal = std::uint64_t(header.rows) * info.rowBytes;
    mOutTotal = std::uint64_t(mFrame.lines) * std::uint64_t(mFrame.bytes_per_line);
    mFrameKnown = true;
    return 1;
}

std::uint64_t SaneSession::rawBytesAvailable()
{
    struct stat status;
    if (::fstat(mRaw.get(), &status) != 0) return 0;
    std::uint64_t size = std::uint64_t(status.st_size);
    std::uint64_t end = std::min(size > kRawFileHeaderLength ? size - kRawFileHeaderLength : 0, mRawTotal);
    std::uint64_t available = end > mRawRead ? end - mRawRead : 0;
    return available - available % mRawPixelBytes;
}

SANE_Int SaneSession::produce(SANE_Byte* data, SANE_Int maxLength)
{
    std::size_t written = 0, wanted = std::size_t(maxLength);
    while (written < wanted) {
        if (mPendingPos < mPending.size()) {
            std::size_t count = std::min(wanted - written, mPending.size() - mPendingPos);
            std::memcpy(data + written, mPending.data() + mPendingPos, count);
            written += count;
            mPendingPos += count;
            continue;
        }
        std::uint64_t available = rawBytesAvailable();
        std::size_t chunk = std::size_t(std::min<std::uint64_t>(available, kReadChunk - kReadChunk % mRawPixelBytes));
        if (chunk == 0) break;
        mRawBuffer.resize(chunk);
        ssize_t got = ::pread(mRaw.get(), mRawBuffer.data(), chunk, off_t(kRawFileHeaderLength + mRawRead));
        if (got <= 0) break;
        std::size_t bytes = std::size_t(got) - std::size_t(got) % mRawPixelBytes;
        mRawRead += bytes;
        if (mRawPixelBytes == 1) {
            mPending.assign(mRawBuffer.begin(), mRawBuffer.begin() + std::ptrdiff_t(bytes));
        } else {
            // x R G B on file, R G B for the frontend.
            std::size_t pixels = bytes / 4;
            mPending.resize(pixels * 3);
            const SANE_Byte* in = mRawBuffer.data();
            SANE_Byte* out = mPending.data();
            for (std::size_t i = 0; i < pixels; ++i, in += 4, out += 3) {
                out[0] = in[1];
                out[1] = in[2];
                out[2] = in[3];
            }
        }
        mPendingPos = 0;
    }
    mOutWritten += written;
    return SANE_Int(written);
}

SANE_Status SaneSession::read(SANE_Byte* data, SANE_Int maxLength, SANE_Int* length)
{
    if (!length) return SANE_STATUS_INVAL;
    *length = 0;
    if (!data || maxLength < 0) return SANE_STATUS_INVAL;
    if (mCancelRequested.load()) return finishCancel();
    if (mPhase == Phase::Idle) return SANE_STATUS_INVAL;
    if (mPhase == Phase::Done) return mEndStatus;

    auto deadline = RunLoop::Clock::now() + kNoProgressWait;
    for (;;) {
        drainWatch();
        // The end is read before the data: whatever the scan wrote before it
        // ended is then surely in the file.
        bool ended, completed;
        {
            std::lock_guard<std::mutex> guard(mMutex);
            ended = mScanEnded;
            completed = mScanCompleted;
        }
        if (mCancelRequested.load()) return finishCancel();
        int frame = loadFrame();
        if (frame < 0) return failScan(SANE_STATUS_IO_ERROR);
        if (frame > 0) {
            if (SANE_Int count = produce(data, maxLength); count > 0) {
                *length = count;
                return SANE_STATUS_GOOD;
            }
        }
        if (ended) {
            if (!completed || frame == 0) return failScan(SANE_STATUS_IO_ERROR);
            if (mOutWritten < mOutTotal) {
                // The scanner ended the page early: the rows it never sent are
                // blank paper, so the frame keeps the size we announced.
                std::uint64_t count = std::min<std::uint64_t>(mOutTotal - mOutWritten, std::uint64_t(maxLength));
                std::memset(data, 0xFF, std::size_t(count));
                mOutWritten += count;
                *length = SANE_Int(count);
                return SANE_STATUS_GOOD;
            }
            releaseScan();
            mPhase = Phase::Done;
            mEndStatus = SANE_STATUS_EOF;
            return SANE_STATUS_EOF;
        }
        if (mNonBlocking) return SANE_STATUS_GOOD;
        auto now = RunLoop::Clock::now();
        if (now > deadline) return failScan(SANE_STATUS_IO_ERROR);
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count();
        waitForChange(int(std::min<long long>(left, 1000)) + 1);
    }
}

SANE_Status SaneSession::setIoMode(SANE_Bool nonBlocking)
{
    if (mPhase != Phase::Scanning) return SANE_STATUS_INVAL;
    if (nonBlocking != SANE_TRUE && nonBlocking != SANE_FALSE) return SANE_STATUS_INVAL;
    mNonBlocking = nonBlocking == SANE_TRUE;
    return SANE_STATUS_GOOD;
}

SANE_Status SaneSession::getSelectFd(SANE_Int* fd)
{
    if (!fd) return SANE_STATUS_INVAL;
    if (mPhase != Phase::Scanning) return SANE_STATUS_INVAL;
    *fd = mEpoll.get();
    return SANE_STATUS_GOOD;
}

}  // namespace zentary::sane
