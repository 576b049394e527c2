#include "scanlib/ScanDevice.h"

#include "scanlib/BoundedCall.h"
#include "scanlib/PacketUtils.h"
#include "scanlib/ScanLibError.h"

#include <charconv>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>

namespace zentary {

const char* const sScanCompletedNotification = "ScanCompletedNotification";
const char* const sScanAbortedNotification = "ScanAbortedNotification";

namespace {

struct ScannerAttrs {
    std::int32_t productID;
    std::int32_t attribute;  // not used by anything; kept with the model's row
    const char* resolutions;
};
const ScannerAttrs sScannerAttrs[] = {
    {0x4A21, 1, "150,300,600,1200"},
};

// Inches to the scanner's hundredths, truncated toward zero; values no float
// of a sane rectangle reaches saturate instead of being undefined.
std::int32_t toHundredths(float inches)
{
    float v = std::trunc(inches * kHundredths);
    if (!(v == v)) return 0;
    if (v >= 2147483520.0f) return INT32_MAX;
    if (v <= -2147483520.0f) return INT32_MIN;
    return std::int32_t(v);
}

}  // namespace

ScanArea scanAreaForCrop(const ScanRect& crop)
{
    ScanArea area;
    area.top = toHundredths(crop.y);
    area.left = toHundredths(crop.x);
    // The record's fields are unsigned and wrap alike.
    area.bottom = std::int32_t(std::uint32_t(toHundredths(crop.height)) + std::uint32_t(area.top));
    area.right = std::int32_t(std::uint32_t(toHundredths(crop.width)) + std::uint32_t(area.left));
    return area;
}

std::uint32_t pixelsAcross(std::uint32_t hundredths, std::int32_t dpi)
{
    // In single precision, as the scanner counts: 2.36 in at 150 dpi is 353
    // pixels there, not 354.
    float pixels = std::trunc(float(hundredths) / kHundredths * float(dpi));
    // Defined for any record the device may send.
    if (!(pixels > 0)) return 0;
    return pixels >= 2147483520.0f ? INT32_MAX : std::uint32_t(pixels);
}

// The scan thread's side of the session: its loop thread, the ScanThread
// object that lives there, and the bridge that carries the thread's calls
// back to the session's loop.
struct ScanDevice::Session final : ScanThreadParent {
    Session(ScanDevice* device, RunLoop* ownerLoop) : owner(ownerLoop), alive(std::make_shared<ScanDevice*>(device)) {}

    void setServer(ScanThread* server, std::int32_t tag) override
    {
        owner->post([weak = std::weak_ptr<ScanDevice*>(alive), server, tag] {
            if (auto device = weak.lock()) (*device)->setServer(server, tag);
        });
    }
    void setScanProgress(float progress) override
    {
        owner->post([weak = std::weak_ptr<ScanDevice*>(alive), progress] {
            if (auto device = weak.lock()) (*device)->setScanProgress(progress);
        });
    }
    void scanDone(int error) override
    {
        int cause = object ? object->getFirstScanError() : error;
        auto file = std::make_shared<RawFileLock>(object ? object->takeFinishedFile() : RawFileLock());
        // The session's thread keeps its loop running whenever it waits for
        // us, so this wait ends quickly; the bound is for an engine thread
        // that is stuck elsewhere, and the notification still goes out when
        // it comes back.
        callWithin(*owner, kScanDoneWait, [weak = std::weak_ptr<ScanDevice*>(alive), error, cause, file] {
            if (auto device = weak.lock()) {
                (*device)->mLastScanCause = cause;
                (*device)->mRawFile = std::move(*file);
                (*device)->scanDone(error);
            }
        });
    }

    RunLoop* owner;
    // Calls from this session reach the device only while the session is
    // current: they run on the owner's thread, which is also where the
    // session is destroyed.
    std::shared_ptr<ScanDevice*> alive;
    std::unique_ptr<ScanThread> object;  // created, used and destroyed on `thread`
    std::unique_ptr<LoopThread> thread;  // last: stopped and joined first
};

std::unique_ptr<ScanDevice> ScanDevice::scanDeviceWithVID(std::int32_t vid, std::int32_t pid,
                                                          const std::optional<std::string>& serialNumber,
                                                          NotificationCenter& center)
{
    auto device = std::make_unique<ScanDevice>(center);
    if (device->setDeviceFromVID(vid, pid, serialNumber) != 0) return nullptr;
    return device;
}

std::unique_ptr<ScanDevice> ScanDevice::scanDeviceWithUSBDevice(std::int32_t pid, std::unique_ptr<USBDevice> usb,
                                                                NotificationCenter& center)
{
    auto device = std::make_unique<ScanDevice>(center);
    if (!usb || !device->setDevAttrsFromPID(pid)) return nullptr;
    device->mUsbDevice = std::move(usb);
    return device;
}

ScanDevice::ScanDevice(NotificationCenter& center) : mCenter(center) {}

ScanDevice::~ScanDevice()
{
    mDestroying = true;
    endScanThread();
    if (mInterface) mInterface->close();
    mInterface = nullptr;
}

int ScanDevice::setDeviceFromVID(std::int32_t vid, std::int32_t pid, const std::optional<std::string>& andSerialNumber)
{
    if (mUsbDevice) return kScanLibErrGeneric;
    if (!setDevAttrsFromPID(pid)) return kScanLibErrUnsupportedDevice;
    mUsbDevice = USBDevice::usbDeviceWithVid(std::uint16_t(vid & 0xFFFF), std::uint16_t(pid & 0xFFFF), andSerialNumber);
    return mUsbDevice ? 0 : kScanLibErrDeviceNotFound;
}

bool ScanDevice::setDevAttrsFromPID(std::int32_t pid)
{
    for (std::size_t i = 0; i < std::size(sScannerAttrs); ++i)
        if (sScannerAttrs[i].productID == pid) {
            mScanAttrsIndex = std::int32_t(i);
            return true;
        }
    return false;
}

bool ScanDevice::validateDPI(std::int32_t dpi) const
{
    if (mScanAttrsIndex < 0) return false;
    std::string_view list = sScannerAttrs[mScanAttrsIndex].resolutions;
    while (!list.empty()) {
        auto comma = list.find(',');
        std::string_view piece = list.substr(0, comma);
        std::int32_t value = 0;
        auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
        if (error == std::errc() && end == piece.data() + piece.size() && value == dpi) return true;
        if (comma == std::string_view::npos) break;
        list.remove_prefix(comma + 1);
    }
    return false;
}

int ScanDevice::openSession()
{
    if (!mUsbDevice) return kScanLibErrUnsupportedDevice;
    if (mInterface) return kScanLibErrGeneric;
    RunLoop* owner = RunLoop::current();
    // The scan thread's calls come back through the session's loop; without
    // one they could never arrive.
    if (!owner) return kScanLibErrNotOpen;
    USBInterface* interface = mUsbDevice->interfaceWithClass(kScnrClass, kScnrSubclass, kScnrProtocol);
    if (!interface) return kScanLibErrDeviceNotFound;
    if (interface->open() != kUSBNoErr) return kScanLibErrDeviceNotFound;
    mInterface = interface;

    mSession = std::make_unique<Session>(this, owner);
    mSession->thread = std::make_unique<LoopThread>("zentary-scan");
    Session* session = mSession.get();
    session->thread->loop().post([session, interface] {
        session->object =
            std::make_unique<ScanThread>(session, kScanThreadSignature, interface, session->thread->loop());
        session->setServer(session->object.get(), kScanThreadSignature);
    });
    return 0;
}

bool ScanDevice::isSessionOpen() const
{
    return mInterface && mScanThread;
}

void ScanDevice::endScanThread()
{
    if (!mSession) return;
    Session* session = mSession.get();
    callWithin(session->thread->loop(), kThreadCallWait, [session] {
        if (session->object) session->object->exit();
        session->object.reset();
    });
    // Joins the thread: its current step ends within one USB time-out.
    mSession.reset();
    mScanThread = nullptr;
}

void ScanDevice::closeSession()
{
    if (mState == kScanStateScanning) stopScan();
    if (mState != kScanStateIdle && mSession) {
        // Let the cancelled job end and report before the pipe is used again.
        if (RunLoop* own = RunLoop::current())
            own->runUntil([this] { return mState == kScanStateIdle; }, RunLoop::Clock::now() + kScanDoneWait);
    }
    // The thread goes before the unlock exchange: with no job reading the
    // bulk-in pipe, the unlock reply cannot be taken for a scan packet.
    endScanThread();
    releaseRemovedRawFile();
    mState = kScanStateIdle;
    if (mLocked) unlockScanner();
    if (mInterface) {
        mInterface->close();
        mInterface = nullptr;
    }
    mState = kScanStateIdle;
}

void ScanDevice::releaseRemovedRawFile()
{
    if (mRawFile.fileRemoved()) mRawFile.release();
}

int ScanDevice::lockScanner()
{
    // A new scan is about to have its free space measured: the last one's
    // file, once removed, must not keep its blocks through our descriptor.
    releaseRemovedRawFile();
    if (!mInterface) return kScanLibErrNotOpen;
    if (mLocked) return 0;
    int result = PacketUtils::sendPacketToInterface(mInterface, kScanMsgResetBuffers);
    if (result != 0) return result;
    std::this_thread::sleep_for(kBufferResetWait);
    std::uint32_t status = 0;
    result = PacketUtils::sendPacketToInterface(mInterface, kScanMsgLock, &status);
    if (result != 0 || status != 0) return kScanLibErrBusy;
    mLocked = true;
    return 0;
}

void ScanDevice::unlockScanner()
{
    // During a job the scan thread owns the bulk-in pipe; the unlock waits
    // for the job's end (closeSession does that).
    if (!mLocked || mState != kScanStateIdle) return;
    std::uint32_t status = 0;
    PacketUtils::sendPacketToInterface(mInterface, kScanMsgUnlock, &status);
    mLocked = false;
}

bool ScanDevice::isLocked() const
{
    return mInterface && mLocked;
}

void ScanDevice::setColorType(int colorType)
{
    mColorType = colorType;
}

int ScanDevice::setResolution(std::int32_t dpi)
{
    if (!validateDPI(dpi)) return kScanLibErrBadResolution;
    mDPI = dpi;
    return 0;
}

void ScanDevice::setOutputFile(std::string path)
{
    mFilePath = std::move(path);
}

int ScanDevice::startScan()
{
    return startScanWithCrop(makeFullSizeRect());
}

int ScanDevice::startScanWithCrop(ScanRect crop)
{
    if (!mScanThread) return kScanLibErrNotOpen;
    if (!mInterface) return kScanLibErrNotOpen;
    if (!mLocked) return kScanLibErrNotLocked;
    if (!mFilePath && !mRowSink) return kScanLibErrNotOpen;
    if (mState == kScanStateScanning || mState == kScanStateStopping) return kScanLibErrBusy;
    mProgress = 0;

    std::uint32_t status = 0;
    int result = PacketUtils::sendPacketToInterface(mInterface, kScanMsgCheckReady, &status);
    if (result == 0 && status != 0) return kScanLibErrGeneric;
    if (result != 0) return result;
    ScannerSettings settings{};
    result = PacketUtils::getSettings(&settings, mInterface);
    if (result != 0) return result;

    bool color = mColorType == kColorTypeColor;
    settings.fields[kSettingsResolution] = std::uint32_t(mDPI);
    settings.fields[kSettingsColorFlag] = color ? 1 : 0;
    settings.fields[kSettingsScanMode] = color ? kScanModeColor : kScanModeGray;
    ScanArea area = scanAreaForCrop(crop);
    settings.fields[kSettingsAreaTop] = std::uint32_t(area.top);
    settings.fields[kSettingsAreaLeft] = std::uint32_t(area.left);
    settings.fields[kSettingsAreaBottom] = std::uint32_t(area.bottom);
    settings.fields[kSettingsAreaRight] = std::uint32_t(area.right);

    result = PacketUtils::sendSettings(&settings, mInterface);
    if (result != 0) return result;

    auto answer = std::make_shared<int>(kScanLibErrTimeout);
    ScanThread* thread = mScanThread;
    std::string path = mRowSink ? std::string() : *mFilePath;
    ScanRowSink* sink = mRowSink;
    if (!callWithin(mSession->thread->loop(), kThreadCallWait, [thread, path, sink, answer] {
            *answer = sink ? thread->startScanToSink(sink) : thread->startScanToFile(path);
        }))
        return kScanLibErrTimeout;
    if (*answer != 0) return *answer;
    mState = kScanStateScanning;
    return 0;
}

ScanRect ScanDevice::makeFullSizeRect()
{
    if (!mUsbDevice || !mInterface || mState == kScanStateScanning) return {};
    ScannerSettings settings{};
    if (PacketUtils::getSettings(&settings, mInterface) != 0) return {};
    auto top = float(std::int32_t(settings.fields[kSettingsBedTop]));
    auto left = float(std::int32_t(settings.fields[kSettingsBedLeft]));
    auto bottom = float(std::int32_t(settings.fields[kSettingsBedBottom]));
    auto right = float(std::int32_t(settings.fields[kSettingsBedRight]));
    return {left / kHundredths, top / kHundredths, (right - left) / kHundredths, (bottom - top) / kHundredths};
}

void ScanDevice::stopScan()
{
    if (!mUsbDevice || !mInterface || !mLocked || mState != kScanStateScanning) return;
    if (mScanThread && mSession) {
        ScanThread* thread = mScanThread;
        callWithin(mSession->thread->loop(), kThreadCallWait, [thread] { thread->stopScan(); });
    }
    // While we waited, our loop may have taken the job's scanDone (the job
    // ended by itself meanwhile): an idle session stays idle.
    if (mState == kScanStateScanning) mState = kScanStateStopping;
}

void ScanDevice::setServer(ScanThread* server, std::int32_t tag)
{
    if (tag != kScanThreadSignature) return;
    mScanThread = server;
    mState = kScanStateIdle;
}

void ScanDevice::setScanProgress(float progress)
{
    mProgress = progress;
}

void ScanDevice::scanDone(int error)
{
    mLastScanError = error;
    // Idle before the observers run, so an observer may start the next scan
    // or close the session at once.
    mState = kScanStateIdle;
    if (mDestroying) return;
    mCenter.post(error != 0 ? sScanAbortedNotification : sScanCompletedNotification);
}

}  // namespace zentary
