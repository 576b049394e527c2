#include "sane/SaneSession.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "capabilities/Capabilities.h"
#include "emulator/EmulatorTransport.h"
#include "sane/SaneDebug.h"
#include "scanlib/ScanDevice.h"
#include "scanlib/usb/LibusbBackend.h"
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
// The ring between the scan thread and sane_read: a few hundred rows at the
// highest resolution, enough to keep the scanner and the frontend both busy.
constexpr std::size_t kFrameBufferBytes = 4u << 20;
// A scanner that is warming up its lamp answers "not ready" for a while;
// we ask again this often, for this long, before telling the frontend.
constexpr std::chrono::milliseconds kWarmUpPoll{250};
constexpr std::chrono::milliseconds kWarmUpWait{15000};

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

// "BBB:DDD" of a USB device name.
std::optional<UsbLocation> parseLocation(std::string_view text)
{
    std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    unsigned bus = 0, address = 0;
    std::string_view busText = text.substr(0, colon), addressText = text.substr(colon + 1);
    auto [busEnd, busError] = std::from_chars(busText.data(), busText.data() + busText.size(), bus);
    auto [addressEnd, addressError] =
        std::from_chars(addressText.data(), addressText.data() + addressText.size(), address);
    if (busError != std::errc() || addressError != std::errc() || busEnd != busText.data() + busText.size() ||
        addressEnd != addressText.data() + addressText.size() || bus > 255 || address > 255)
        return std::nullopt;
    return UsbLocation{std::uint8_t(bus), std::uint8_t(address)};
}

// The crop that asks the scanner for the request's area. The library
// truncates inches times 100; a quarter hundredth on top makes it land on
// exactly the hundredths we mean.
ScanRect cropOf(const ScanRequest& request)
{
    auto inches = [](std::int32_t hundredths) { return (float(hundredths) + 0.25f) / 100.0f; };
    return {inches(request.left), inches(request.top), inches(request.right - request.left),
            inches(request.bottom - request.top)};
}

}  // namespace

SaneSession::SaneSession(RunLoop& loop) : mLoop(loop), mBuffer(kFrameBufferBytes) {}

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
    if (!mBuffer.isValid()) return SANE_STATUS_NO_MEM;

    std::string error;
    mCapabilities = Capabilities::initWithModel(kModel, false, config.capabilitiesDir, &error);
    if (mCapabilities && !mOptions.load(mCapabilities.get(), &error)) mCapabilities.reset();
    if (!mCapabilities) {
        // Nothing works without the definitions: say where we looked and
        // what the configuration file to fix is.
        debug(kDebugAlways,
              "cannot open %s: no usable capability definitions for \"%s\" in %s (%s); set the "
              "\"capabilities\" line of zentary.conf to the directory that holds them",
              deviceName.c_str(), kModel, config.capabilitiesDir.c_str(), error.c_str());
        return SANE_STATUS_INVAL;
    }

    return callOn(mLoop, [&]() -> SANE_Status {
        std::unique_ptr<USBDevice> usb;
        if (deviceName == kEmulatorDeviceName) {
            if (auto backend = makeEmulatorDevice(kScannerVendorID, kScannerProductID, std::nullopt, emulatorOptions()))
                usb = std::make_unique<USBDevice>(std::move(backend));
        } else if (deviceName.rfind(kUsbDevicePrefix, 0) == 0) {
            std::optional<UsbLocation> location = parseLocation(deviceName.substr(std::strlen(kUsbDevicePrefix)));
            if (!location) return SANE_STATUS_INVAL;
            if (auto backend = openLibusbDeviceAt(kScannerVendorID, kScannerProductID, *location))
                usb = std::make_unique<USBDevice>(std::move(backend));
        }
        // A scanner listed a moment ago may have been unplugged since.
        if (!usb) {
            debug(kDebugError, "cannot open %s: no such scanner (unplugged, or no permission)", deviceName.c_str());
            return SANE_STATUS_INVAL;
        }
        mScanner = ScanDevice::scanDeviceWithUSBDevice(kScannerProductID, std::move(usb), mCenter);
        if (!mScanner) return SANE_STATUS_INVAL;
        mScanner->setRowSink(&mBuffer);
        mObservers.push_back(mCenter.addObserver(sScanCompletedNotification, [this] { scanEnded(true); }));
        mObservers.push_back(mCenter.addObserver(sScanAbortedNotification, [this] { scanEnded(false); }));
        if (int result = mScanner->openSession(); result != 0) {
            debug(kDebugError, "cannot open %s: scanner session failed (%d)", deviceName.c_str(), result);
            return SANE_STATUS_IO_ERROR;
        }
        bool open = mLoop.runUntil([this] { return mScanner->isSessionOpen(); },
                                   RunLoop::Clock::now() + kThreadCallWait);
        debug(kDebugInfo, "opened %s%s", deviceName.c_str(), open ? "" : ": the scan thread did not start");
        return open ? SANE_STATUS_GOOD : SANE_STATUS_IO_ERROR;
    });
}

SaneSession::~SaneSession()
{
    mCancelRequested = true;
    // The scan thread may be waiting for room in the buffer.
    mBuffer.abort();
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
}

void SaneSession::scanEnded(bool completed)
{
    debug(kDebugInfo, "scan %s (library code %d, cause %d)", completed ? "completed" : "ended early",
          mScanner ? mScanner->lastScanError() : 0, mScanner ? mScanner->lastScanCause() : 0);
    // During closeSession the session unlocks by itself, after the scan thread
    // is gone.
    if (!mClosing && mScanner) mScanner->unlockScanner();
    mBuffer.finish(completed ? SANE_STATUS_GOOD : SANE_STATUS_IO_ERROR);
    std::lock_guard<std::mutex> guard(mMutex);
    if (mCancelTimer) mLoop.cancel(*mCancelTimer);
    mCancelTimer.reset();
    mScanEnded = true;
    mEndedCondition.notify_all();
}

void SaneSession::pollCancel()
{
    if (!mCancelRequested.load() || !mScanner) return;
    // A cancel after the last byte (frontends send one after every page)
    // leaves the scanner to end its job by itself.
    if (mBuffer.isDrained()) return;
    mBuffer.abort();
    mScanner->stopScan();
}

void SaneSession::cancel()
{
    mCancelRequested.store(true);
    mBuffer.wake();
}

bool SaneSession::waitForScanEnd(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mEndedCondition.wait_for(lock, limit, [this] { return mScanEnded; });
}

void SaneSession::stopScanAndWait()
{
    mBuffer.abort();
    try {
        callOn(mLoop, [this] { mScanner->stopScan(); });
    } catch (...) {
        return;
    }
    waitForScanEnd(kNoProgressWait);
}

SANE_Status SaneSession::finishCancel()
{
    debug(kDebugCalls, "cancel");
    if (mPhase == Phase::Scanning) stopScanAndWait();
    mPhase = Phase::Idle;
    return SANE_STATUS_CANCELLED;
}

SANE_Status SaneSession::controlOption(SANE_Int option, SANE_Action action, void* value, SANE_Int* info)
{
    if (mCancelRequested.load() && mPhase != Phase::Idle) finishCancel();
    if (action == SANE_ACTION_SET_VALUE && mPhase == Phase::Scanning) {
        if (info) *info = 0;
        return SANE_STATUS_DEVICE_BUSY;
    }
    SANE_Status status = mOptions.control(option, action, value, info);
    if (action == SANE_ACTION_SET_VALUE)
        debug(kDebugCalls, "set option %d: %s, info %d", int(option), status == SANE_STATUS_GOOD ? "done" : "refused",
              info ? int(*info) : 0);
    return status;
}

SANE_Parameters SaneSession::estimate(const ScanRequest& request) const
{
    // Counted by the library's own rule from the area it will send, so the
    // size told before the scan is the size the scan announces.
    ScanArea area = scanAreaForCrop(cropOf(request));
    SANE_Parameters parameters{};
    parameters.format = request.gray ? SANE_FRAME_GRAY : SANE_FRAME_RGB;
    parameters.last_frame = SANE_TRUE;
    parameters.pixels_per_line = SANE_Int(pixelsAcross(std::uint32_t(area.right - area.left), request.dpi));
    parameters.lines = SANE_Int(pixelsAcross(std::uint32_t(area.bottom - area.top), request.dpi));
    parameters.bytes_per_line = parameters.pixels_per_line * (request.gray ? 1 : 3);
    parameters.depth = 8;
    return parameters;
}

SANE_Status SaneSession::getParameters(SANE_Parameters* parameters)
{
    if (!parameters) return SANE_STATUS_INVAL;
    if (mCancelRequested.load() && mPhase != Phase::Idle) finishCancel();
    if (mPhase == Phase::Idle) {
        // Outside a frame: what the current options would give.
        *parameters = estimate(mOptions.request());
        return SANE_STATUS_GOOD;
    }
    // From sane_start to sane_cancel, the frame sane_read delivers. That
    // includes the time after its last byte: behind saned, the frontend's
    // question may arrive only after saned has read the whole frame.
    auto deadline = SaneFrameBuffer::Clock::now();
    if (mPhase == Phase::Scanning) deadline += kThreadCallWait;
    *parameters = mBuffer.frame(deadline, mCancelRequested, estimate(mRequest));
    return SANE_STATUS_GOOD;
}

SANE_Status SaneSession::start()
{
    if (mCancelRequested.load() && mPhase != Phase::Idle) finishCancel();
    // A frame is being read: the frontend must cancel it or read it to its end.
    if (mPhase == Phase::Scanning) return SANE_STATUS_DEVICE_BUSY;
    // The last frame was read to its end; its job may still be closing.
    if (!waitForScanEnd(kNoProgressWait)) return SANE_STATUS_DEVICE_BUSY;
    mPhase = Phase::Idle;
    mCancelRequested = false;
    mNonBlocking = false;
    mRequest = mOptions.request();
    mBuffer.reset(mRequest.gray);
    debug(kDebugInfo, "start: %s, %d dpi, area %d,%d to %d,%d (1/100 in)", mRequest.gray ? "gray" : "colour",
          int(mRequest.dpi), int(mRequest.left), int(mRequest.top), int(mRequest.right), int(mRequest.bottom));

    SANE_Status status = callOn(mLoop, [this] { return startOnLoop(); });
    if (status != SANE_STATUS_GOOD) {
        debug(kDebugError, "start failed: %d", int(status));
        return status;
    }
    mPhase = Phase::Scanning;
    return SANE_STATUS_GOOD;
}

SANE_Status SaneSession::startOnLoop()
{
    int locked = mScanner->lockScanner();
    if (locked == kScanLibErrBusy) return SANE_STATUS_DEVICE_BUSY;
    if (locked != 0) return SANE_STATUS_IO_ERROR;
    mScanner->setColorType(mRequest.gray ? kColorTypeGray : kColorTypeColor);
    if (mScanner->setResolution(mRequest.dpi) != 0) {
        mScanner->unlockScanner();
        return SANE_STATUS_INVAL;
    }
    ScanRect crop = cropOf(mRequest);
    {
        std::lock_guard<std::mutex> guard(mMutex);
        mScanEnded = false;
    }
    auto warmUpEnd = RunLoop::Clock::now() + kWarmUpWait;
    int result;
    // "Not ready" (the library's generic failure of the ready check) is a
    // lamp warming up: wait for it, serving the loop, unless the frontend
    // cancels.
    while ((result = mScanner->startScanWithCrop(crop)) == kScanLibErrGeneric &&
           RunLoop::Clock::now() < warmUpEnd && !mCancelRequested.load()) {
        debug(kDebugInfo, "scanner not ready, waiting");
        mLoop.runUntil([this] { return mCancelRequested.load(); }, RunLoop::Clock::now() + kWarmUpPoll);
    }
    if (result != 0) {
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mScanEnded = true;
        }
        mScanner->unlockScanner();
        debug(kDebugError, "the scanner refused the scan (library code %d)", result);
        if (mCancelRequested.load()) return SANE_STATUS_CANCELLED;
        return result == kScanLibErrGeneric ? SANE_STATUS_DEVICE_BUSY : SANE_STATUS_IO_ERROR;
    }
    std::lock_guard<std::mutex> guard(mMutex);
    if (!mScanEnded) mCancelTimer = mLoop.schedule(kCancelPoll, [this] { pollCancel(); }, kCancelPoll);
    return SANE_STATUS_GOOD;
}

SANE_Status SaneSession::read(SANE_Byte* data, SANE_Int maxLength, SANE_Int* length)
{
    if (!length) return SANE_STATUS_INVAL;
    *length = 0;
    if (!data || maxLength < 0) return SANE_STATUS_INVAL;
    if (mCancelRequested.load()) {
        if (mPhase == Phase::Idle) return SANE_STATUS_INVAL;
        return finishCancel();
    }
    if (mPhase == Phase::Idle) return SANE_STATUS_INVAL;
    if (mPhase == Phase::Done) return mEndStatus;
    SANE_Status status = mBuffer.read(data, maxLength, length, !mNonBlocking, mCancelRequested, kNoProgressWait);
    if (status == SANE_STATUS_CANCELLED) return finishCancel();
    if (status != SANE_STATUS_GOOD) {
        if (status != SANE_STATUS_EOF) {
            debug(kDebugError, "frame ended with status %d", int(status));
            // A reader that gave up waiting leaves a scan behind: end it.
            std::lock_guard<std::mutex> guard(mMutex);
            if (!mScanEnded) mCancelRequested = true;
        }
        if (mCancelRequested.load()) stopScanAndWait();
        mCancelRequested = false;
        mPhase = Phase::Done;
        mEndStatus = status;
    }
    debug(kDebugData, "read %d of %d bytes, status %d", int(*length), int(maxLength), int(status));
    return status;
}

SANE_Status SaneSession::setIoMode(SANE_Bool nonBlocking)
{
    if (mPhase == Phase::Idle) return SANE_STATUS_INVAL;
    if (nonBlocking != SANE_TRUE && nonBlocking != SANE_FALSE) return SANE_STATUS_INVAL;
    mNonBlocking = nonBlocking == SANE_TRUE;
    return SANE_STATUS_GOOD;
}

SANE_Status SaneSession::getSelectFd(SANE_Int* fd)
{
    if (!fd) return SANE_STATUS_INVAL;
    if (mPhase == Phase::Idle) return SANE_STATUS_INVAL;
    *fd = mBuffer.selectFd();
    return SANE_STATUS_GOOD;
}

}  // namespace zentary::sane
