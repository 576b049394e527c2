// The scan cycle: lock the scanner, scan into a raw file, wait for the end
// of the scan, and tell the client that a transfer is ready (or ask it to
// close the source).
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>

#include "capabilities/Capabilities.h"
#include "ds/DSAlerts.h"
#include "ds/DataSourceEngine.h"
#include "ds/DataSourceThreads.h"
#include "platform/Files.h"
#include "scanlib/ScanDevice.h"
#include "twain/Manager.h"

namespace zentary {

using namespace twain;

namespace {

constexpr std::chrono::milliseconds kRetryDelay{250};
constexpr std::chrono::milliseconds kAnnounceDelay{250};
constexpr int kMaximumAttempts = 10;
constexpr float kImageCaptureByteLimit = 143654912.0f;

const char* const kCompleted = "ScanCompletedNotification";
const char* const kAborted = "ScanAbortedNotification";

float toFloat(const TW_FIX32& value)
{
    return static_cast<float>(value.Whole) + static_cast<float>(value.Frac) / 65536.0f;
}

// "Image_<local date and time>.raw" in the temporary folder; a second scan
// within the same second gets a suffix rather than clobbering the first.
std::optional<std::string> rawFilePath()
{
    std::time_t now = std::time(nullptr);
    std::tm local{};
    if (!localtime_r(&now, &local)) return std::nullopt;
    char stamp[64];
    if (std::strftime(stamp, sizeof(stamp), "%Y_%m_%d_%H_%M_%S", &local) == 0) return std::nullopt;
    std::filesystem::path directory = files::temporaryDirectory();
    std::filesystem::path path = directory / ("Image_" + std::string(stamp) + ".raw");
    for (int n = 2; std::filesystem::exists(path) && n < 100; ++n)
        path = directory / ("Image_" + std::string(stamp) + "_" + std::to_string(n) + ".raw");
    if (std::filesystem::exists(path)) return std::nullopt;
    return path.string();
}

}  // namespace

RunLoop::TimerId DataSourceEngine::schedule(std::chrono::milliseconds delay, std::function<void()> task)
{
    // Timers fire on this loop, the engine's own thread; closing the
    // engine, which happens there too, cancels every one still pending, and
    // a closed engine starts none. An engine made outside any loop (a unit
    // test) has no timers.
    if (!mLoop || mClosed) return 0;
    auto id = std::make_shared<RunLoop::TimerId>(0);
    *id = mLoop->schedule(
        delay,
        [this, id, task = std::move(task)] {
            Operation operation;
            mTimers.erase(*id);
            task();
        },
        std::chrono::milliseconds::zero(), RunLoop::Nesting::Outermost);
    mTimers.insert(*id);
    return *id;
}

void DataSourceEngine::cancelAllTimers()
{
    if (mLoop)
        for (RunLoop::TimerId id : mTimers) mLoop->cancel(id);
    mTimers.clear();
    mImageCaptureMultipleScanTimer.reset();
}

void DataSourceEngine::cancelTimer(std::optional<RunLoop::TimerId>& timer)
{
    if (!timer) return;
    mLoop->cancel(*timer);
    mTimers.erase(*timer);
    timer.reset();
}

void DataSourceEngine::startScanning(std::optional<int> retry)
{
    if (mScanner->isSessionOpen()) {
        if (prepareForScan() && startNextScan()) return;
        // With the dialog on screen the user may simply try again.
        if (!mDialog) requestClose();
        return;
    }
    int attempt = retry ? *retry + 1 : 1;
    if (attempt > kMaximumAttempts) {
        DSAlerts::displayMessage(4);
        return;
    }
    schedule(kRetryDelay, [this, attempt] { startScanning(attempt); });
}

void DataSourceEngine::stopScanning()
{
    mScanner->stopScan();
}

bool DataSourceEngine::prepareForScan()
{
    if (mScanner->lockScanner() != 0) {
        DSAlerts::displayMessage(4);
        return false;
    }
    NotificationCenter& center = NotificationCenter::defaultCenter();
    mScanObservers.push_back(center.addObserver(kCompleted, [this] {
        Operation operation;
        scanNotification(true);
    }));
    mScanObservers.push_back(center.addObserver(kAborted, [this] {
        Operation operation;
        scanNotification(false);
    }));
    return true;
}

void DataSourceEngine::stopObservingScans()
{
    for (NotificationCenter::Token token : mScanObservers) NotificationCenter::defaultCenter().removeObserver(token);
    mScanObservers.clear();
}

bool DataSourceEngine::startNextScan()
{
    if (!mScanner->isLocked()) {
        DSAlerts::displayMessage(4);
        stopObservingScans();
        return false;
    }
    auto refuse = [this](int alert) {
        DSAlerts::displayMessage(alert);
        mScanner->unlockScanner();
        stopObservingScans();
        return false;
    };

    std::optional<CapabilityValue> pixelType = mCapabilities->currentValue(ICAP_PIXELTYPE);
    bool gray = pixelType && pixelType->isNumber() && pixelType->number() == TWPT_GRAY;
    std::optional<CapabilityValue> resolution = mCapabilities->currentValue(ICAP_XRESOLUTION);
    if (!resolution || resolution->isNumber() || resolution->items().empty() || !resolution->items()[0].isNumber())
        return refuse(1);
    auto res = static_cast<std::int32_t>(resolution->items()[0].number());
    const TW_FRAME& frame = mImageLayout.Frame;
    float left = toFloat(frame.Left), top = toFloat(frame.Top);
    float width = toFloat(frame.Right) - left, height = toFloat(frame.Bottom) - top;
    float pixels = static_cast<float>(res) * (height * width * static_cast<float>(res));

    // The raw file goes to the temporary folder, so that is the volume
    // whose free space decides. A volume we cannot measure is not checked.
    if (std::optional<std::uint64_t> free = files::freeSpace(files::temporaryDirectory()))
        if (pixels * (gray ? 1.0f : 4.0f) > static_cast<float>(*free)) return refuse(7);

    if (mClientIsImageCapture && mDialog && pixels * (gray ? 1.0f : 3.0f) > kImageCaptureByteLimit)
        return refuse(8);

    mScanner->setColorType(gray ? 1 : 0);
    if (mScanner->setResolution(res) != 0) return refuse(1);
    std::optional<std::string> path = rawFilePath();
    if (!path) return refuse(1);
    mScanner->setOutputFile(*path);
    if (mScanner->startScanWithCrop(ScanRect{left, top, width, height}) != 0) return refuse(4);
    mImageFile = path;

    if (mDialog) {
        releaseDialog();
        showProgress();
    }
    return true;
}

void DataSourceEngine::scanNotification(bool completed)
{
    if (!completed) deleteImageFile();
    mScanner->unlockScanner();
    stopObservingScans();
    if (completed)
        schedule(kAnnounceDelay, [this] { startTransfer(); });
    else
        schedule(kAnnounceDelay, [this] { requestClose(); });
}

void DataSourceEngine::startTransfer()
{
    mState = kStateTransferReady;
    sendMessageToApplication(MSG_XFERREADY);
    // Image Capture answers on this very thread, and may have ended the
    // session or closed the source from inside its callback.
    if (mClosed) return;
    if (mProgressDialog) progressScanDidComplete();
}

void DataSourceEngine::requestClose()
{
    sendMessageToApplication(MSG_CLOSEDSREQ);
}

TW_UINT16 DataSourceEngine::sendMessageToApplication(TW_UINT16 message)
{
    // Image Capture wants its messages on its own thread; every other
    // client gets them from the messenger thread, which touches nothing but
    // copies of the two identities and the manager. Either way the client
    // may call us back from inside its callback, up to MSG_CLOSEDS: callers
    // look at closed() before their next step.
    if (mClientIsImageCapture)
        return Manager::send(&mSource, &mApplication, DG_CONTROL, DAT_NULL, message, nullptr);
    // Callbacks to the client leave from a thread of their own, so that a
    // client whose callback waits for its own thread, which may be inside
    // DS_Entry waiting for our loop, cannot deadlock us. A message whose
    // session ended before the messenger got to it (the client disabled or
    // closed the source) would only confuse the client, and is dropped.
    DataSourceThreads::instance().messenger().post(
        [session = std::weak_ptr<int>(mSessionToken), source = mSource, application = mApplication,
         message]() mutable {
            if (session.expired()) return;
            Manager::send(&source, &application, DG_CONTROL, DAT_NULL, message, nullptr);
        });
    return TWRC_SUCCESS;
}

}  // namespace zentary
