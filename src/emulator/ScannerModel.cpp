#include "emulator/ScannerModel.h"

#include "emulator/TestChart.h"
#include "scanlib/usb/UsbTransport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <thread>

namespace zentary {

namespace {

enum Stage { kStageJobStart, kStagePageStart, kStageImageStart, kStageData, kStageImageEnd, kStagePageEnd, kStageJobEnd };

constexpr std::uint32_t kStatusRefused = 1;
constexpr std::uint32_t kStatusNotReady = 2;
constexpr std::uint32_t kStatusNotReserved = 3;
constexpr std::uint32_t kStatusBadSettings = 4;
constexpr std::uint8_t kPadding = 0xEE;
constexpr std::uint32_t kPacketBudget = 1u << 20;
constexpr std::uint32_t kBedHeight = 1170, kBedWidth = 850;  // hundredths

std::uint32_t pixelsFor(std::uint32_t hundredths, std::uint32_t dpi)
{
    return std::uint32_t(std::trunc(float(hundredths) / 100.0f * float(dpi)));
}

// Models come and go with each device the host opens; the picture stays
// decoded while any of them shows it.
std::shared_ptr<const PageImage> sharedPage(const std::string& path, std::string* error)
{
    static std::mutex mutex;
    static std::string lastPath;
    static std::weak_ptr<const PageImage> last;
    std::lock_guard<std::mutex> guard(mutex);
    if (auto page = last.lock(); page && lastPath == path) return page;
    auto page = PageImage::load(path, error);
    if (page) {
        lastPath = path;
        last = page;
    }
    return page;
}

}  // namespace

ScannerModel::ScannerModel(EmulatorOptions options) : mOptions(std::move(options))
{
    if (!mOptions.imagePath.empty() && !(mPage = sharedPage(mOptions.imagePath, &mPageError)) && mPageError.empty())
        mPageError = "cannot read " + mOptions.imagePath;
    // Words the scanner owns; the host must hand them back unchanged.
    mDefaults.fields = {0x00010305, 2, 0,      300,  0x100, 0x200, 0x300, 0x400, 8, 0,        0xCAFE, 0,      1,
                        0,          0, kScanModeColor, 0, 0, kBedHeight, kBedWidth, 0, 0, kBedHeight, kBedWidth, 1};
    mSettings = mDefaults;
    if (auto* notReady = fault(EmulatorFault::NotReady)) mNotReadyLeft = notReady->argument;
}

const EmulatorFaultRule* ScannerModel::fault(EmulatorFault kind) const
{
    for (const auto& rule : mOptions.faults)
        if (rule.kind == kind) return &rule;
    return nullptr;
}

bool ScannerModel::faultHitsPacket(EmulatorFault kind, std::uint32_t firstRow, std::uint32_t count)
{
    const auto* rule = fault(kind);
    auto index = std::size_t(kind);
    if (!rule || mFaultFired[index]) return false;
    if (rule->argument < firstRow || rule->argument - firstRow >= count) return false;
    mFaultFired[index] = true;
    return true;
}

void ScannerModel::showLock()
{
    const std::string& path = mOptions.lockFile;
    if (path.empty()) return;
    if (mLocked) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) ::close(fd);
    } else {
        ::unlink(path.c_str());
    }
}

int ScannerModel::commandCount(std::uint32_t message) const
{
    std::lock_guard<std::mutex> guard(mMutex);
    return message < mCommandCounts.size() ? mCommandCounts[message] : 0;
}

bool ScannerModel::isLocked() const
{
    std::lock_guard<std::mutex> guard(mMutex);
    return mLocked;
}

bool ScannerModel::isScanning() const
{
    std::lock_guard<std::mutex> guard(mMutex);
    return mJob.active;
}

ScannerSettings ScannerModel::settings() const
{
    std::lock_guard<std::mutex> guard(mMutex);
    return mSettings;
}

void ScannerModel::reply(std::uint32_t message, std::uint32_t status, const std::uint8_t* payload,
                         std::uint32_t length, std::uint32_t announced)
{
    std::vector<std::uint8_t> bytes(kScanHeaderSize + length, 0);
    storeBE32(bytes.data(), kScanPacketSignature);
    storeBE32(bytes.data() + 4, message);
    storeBE32(bytes.data() + 16, status);
    storeBE32(bytes.data() + 20, announced ? announced : length);
    if (length) std::memcpy(bytes.data() + kScanHeaderSize, payload, length);
    mReplies.push_back(std::move(bytes));
}

std::uint32_t ScannerModel::settingsStatus(const ScannerSettings& p) const
{
    for (std::size_t i = 0; i < kSettingsFields; ++i) {
        bool hostField = i == kSettingsResolution || i == kSettingsScanMode || i == kSettingsColorFlag ||
                         (i >= kSettingsAreaTop && i <= kSettingsAreaRight);
        if (!hostField && p.fields[i] != mDefaults.fields[i]) return kStatusBadSettings;
    }
    std::uint32_t dpi = p.fields[kSettingsResolution];
    if (dpi != 150 && dpi != 300 && dpi != 600 && dpi != 1200) return kStatusBadSettings;
    std::uint32_t mode = p.fields[kSettingsScanMode], flag = p.fields[kSettingsColorFlag];
    if (!((mode == kScanModeColor && flag == 1) || (mode == kScanModeGray && flag == 0))) return kStatusBadSettings;
    auto top = std::int32_t(p.fields[kSettingsAreaTop]), left = std::int32_t(p.fields[kSettingsAreaLeft]);
    auto bottom = std::int32_t(p.fields[kSettingsAreaBottom]), right = std::int32_t(p.fields[kSettingsAreaRight]);
    if (top < 0 || left < 0 || bottom <= top || right <= left || bottom > std::int32_t(kBedHeight) ||
        right > std::int32_t(kBedWidth))
        return kStatusBadSettings;
    if (pixelsFor(std::uint32_t(bottom - top), dpi) == 0 || pixelsFor(std::uint32_t(right - left), dpi) == 0)
        return kStatusBadSettings;
    return 0;
}

int ScannerModel::receive(const std::uint8_t* data, std::uint32_t size)
{
    std::lock_guard<std::mutex> guard(mMutex);
    if (mGone) return kUSBErrNoDevice;
    // Anything that is not a packet of ours is dropped, as the firmware does.
    if (size < kScanHeaderSize || loadBE32(data) != kScanPacketSignature) return kUSBNoErr;
    std::uint32_t message = loadBE32(data + 4);
    if (message < mCommandCounts.size()) ++mCommandCounts[message];
    switch (message) {
    case kScanMsgResetBuffers:
        mReplies.clear();
        mCurrent.clear();
        mCurrentPos = 0;
        mJob.active = false;
        break;
    case kScanMsgLock:
        if (fault(EmulatorFault::LockRefused)) {
            reply(kScanMsgLock, kStatusRefused);
        } else {
            mLocked = true;
            showLock();
            reply(kScanMsgLock, 0);
        }
        break;
    case kScanMsgUnlock:
        mLocked = false;
        showLock();
        reply(kScanMsgUnlock, 0);
        break;
    case kScanMsgCheckReady:
        if (!mLocked) {
            reply(kScanMsgCheckReady, kStatusNotReserved);
        } else if (mNotReadyLeft > 0) {
            --mNotReadyLeft;
            reply(kScanMsgCheckReady, kStatusNotReady);
        } else {
            reply(kScanMsgCheckReady, 0);
        }
        break;
    case kScanMsgGetSettings: {
        std::uint8_t wire[kSettingsSize];
        for (std::size_t i = 0; i < kSettingsFields; ++i) storeBE32(wire + 4 * i, mSettings.fields[i]);
        if (auto* odd = fault(EmulatorFault::SettingsLength)) {
            std::vector<std::uint8_t> payload(odd->argument, 0);
            std::memcpy(payload.data(), wire, std::min<std::size_t>(payload.size(), sizeof wire));
            reply(kScanMsgGetSettings, 0, payload.data(), odd->argument);
        } else {
            reply(kScanMsgGetSettings, 0, wire, kSettingsSize);
        }
        break;
    }
    case kScanMsgSetSettings: {
        if (size < kScanHeaderSize + kSettingsSize || loadBE32(data + 20) != kSettingsSize) {
            reply(kScanMsgSetSettings, kStatusBadSettings);
            break;
        }
        ScannerSettings proposed;
        for (std::size_t i = 0; i < kSettingsFields; ++i)
            proposed.fields[i] = loadBE32(data + kScanHeaderSize + 4 * i);
        std::uint32_t status = settingsStatus(proposed);
        if (status == 0) mSettings = proposed;
        reply(kScanMsgSetSettings, status);
        break;
    }
    case kScanMsgStartScan:
        if (!mLocked || mJob.active) {
            reply(kScanMsgStartScan, kStatusNotReserved);
        } else {
            reply(kScanMsgStartScan, 0);
            startJob();
        }
        break;
    case kScanMsgCancelScan:
        // The rest of the image is dropped and the job closes with an abort.
        if (mJob.active) {
            mJob.active = false;
            mCurrent.clear();
            mCurrentPos = 0;
            reply(kScanMsgScanAborted, 0);
        }
        break;
    default: break;  // unknown commands get no answer
    }
    return kUSBNoErr;
}

void ScannerModel::startJob()
{
    Job& job = mJob;
    job.active = true;
    job.stage = kStageJobStart;
    job.dpi = mSettings.fields[kSettingsResolution];
    job.color = mSettings.fields[kSettingsColorFlag] == 1;
    job.top = mSettings.fields[kSettingsAreaTop];
    job.left = mSettings.fields[kSettingsAreaLeft];
    job.width = pixelsFor(mSettings.fields[kSettingsAreaRight] - job.left, job.dpi);
    job.rows = pixelsFor(mSettings.fields[kSettingsAreaBottom] - job.top, job.dpi);
    // Rows are padded to a multiple of 8 pixels, as the scanner's DMA wants.
    job.pitch = (job.width + 7) & ~7u;
    job.bytesPerPixel = job.color ? 4 : 1;
    std::uint32_t rowBytes = job.pitch * job.bytesPerPixel;
    job.rowsPerPacket = mOptions.rowsPerPacket ? mOptions.rowsPerPacket : std::max(1u, kPacketBudget / rowBytes);
    job.rowsSent = 0;
    for (auto& row : job.rowCache) row.clear();
    job.pageColumns.clear();
    if (mPage)
        for (std::uint32_t px = 0; px < job.width; ++px)
            job.pageColumns.push_back(mPage->column(chart::chartPosition(job.left, job.dpi, px)));
}

void ScannerModel::pageRow(std::uint32_t glassY, std::uint8_t* out) const
{
    // Only the rows asked for are scaled, one at a time, from the picture as
    // decoded: a 1200 dpi scan costs no more memory than a 150 dpi one.
    const Job& job = mJob;
    std::uint32_t y = mPage->row(glassY);
    std::memset(out, kPadding, std::size_t(job.pitch) * job.bytesPerPixel);
    for (std::uint32_t px = 0; px < job.width; ++px) {
        std::uint32_t x = job.pageColumns[px];
        if (job.color) {
            chart::Rgb c = mPage->color(x, y);
            std::uint8_t* p = out + 4 * px;
            p[0] = 0xFF;
            p[1] = c.r;
            p[2] = c.g;
            p[3] = c.b;
        } else {
            out[px] = mPage->gray(x, y);
        }
    }
}

const std::vector<std::uint8_t>& ScannerModel::cachedRow(std::uint32_t rowClass)
{
    auto& row = mJob.rowCache[rowClass];
    if (!row.empty()) return row;
    row.assign(std::size_t(mJob.pitch) * mJob.bytesPerPixel, kPadding);
    for (std::uint32_t px = 0; px < mJob.width; ++px) {
        chart::Rgb c = chart::colorInRow(chart::chartPosition(mJob.left, mJob.dpi, px), rowClass);
        if (mJob.color) {
            std::uint8_t* p = row.data() + 4 * px;
            p[0] = 0xFF;
            p[1] = c.r;
            p[2] = c.g;
            p[3] = c.b;
        } else {
            row[px] = chart::grayOf(c);
        }
    }
    return row;
}

void ScannerModel::buildDataPacket()
{
    Job& job = mJob;
    std::uint32_t count = std::min(job.rowsPerPacket, job.rows - job.rowsSent);
    std::size_t rowBytes = std::size_t(job.pitch) * job.bytesPerPixel;
    std::size_t pixelBytes = rowBytes * count;
    mCurrent.resize(kScanHeaderSize + kScanDataHeaderSize + pixelBytes);
    std::uint8_t* p = mCurrent.data();
    std::memset(p, 0, kScanHeaderSize);
    storeBE32(p, faultHitsPacket(EmulatorFault::BadSignature, job.rowsSent, count) ? 0x41535002 : kScanPacketSignature);
    storeBE32(p + 4, kScanMsgScanData);
    storeBE32(p + 20, std::uint32_t(kScanDataHeaderSize + pixelBytes));
    std::uint8_t* d = p + kScanHeaderSize;
    bool malformed = faultHitsPacket(EmulatorFault::MalformedData, job.rowsSent, count);
    std::uint32_t words[6] = {0, 0, count, job.bytesPerPixel, malformed ? job.pitch + 1 : job.width, job.pitch};
    for (int i = 0; i < 6; ++i) storeBE32(d + 4 * i, words[i]);
    std::uint8_t* rows = d + kScanDataHeaderSize;
    for (std::uint32_t r = 0; r < count; ++r) {
        std::uint32_t y = chart::chartPosition(job.top, job.dpi, job.rowsSent + r);
        if (mPage)
            pageRow(y, rows + r * rowBytes);
        else
            std::memcpy(rows + r * rowBytes, cachedRow(chart::rowClass(y)).data(), rowBytes);
    }
    if (faultHitsPacket(EmulatorFault::ShortData, job.rowsSent, count))
        mCurrent.resize(kScanHeaderSize + kScanDataHeaderSize + pixelBytes / 2);
    job.rowsSent += count;
}

bool ScannerModel::nextMessage()
{
    mCurrentPos = 0;
    mCurrent.clear();
    if (!mReplies.empty()) {
        mCurrent = std::move(mReplies.front());
        mReplies.pop_front();
        return true;
    }
    Job& job = mJob;
    if (!job.active) return false;
    auto bare = [this](std::uint32_t message) {
        mCurrent.assign(kScanHeaderSize, 0);
        storeBE32(mCurrent.data(), kScanPacketSignature);
        storeBE32(mCurrent.data() + 4, message);
    };
    switch (job.stage) {
    case kStageJobStart:
        bare(kScanMsgJobStart);
        storeBE32(mCurrent.data() + 20, kSettingsSize);
        mCurrent.resize(kScanHeaderSize + kSettingsSize);
        for (std::size_t i = 0; i < kSettingsFields; ++i)
            storeBE32(mCurrent.data() + kScanHeaderSize + 4 * i, mSettings.fields[i]);
        job.stage = kStagePageStart;
        return true;
    case kStagePageStart: bare(kScanMsgPageStart); job.stage = kStageImageStart; return true;
    case kStageImageStart: bare(kScanMsgImageStart); job.stage = kStageData; return true;
    case kStageData: {
        std::uint32_t count = std::min(job.rowsPerPacket, job.rows - job.rowsSent);
        if (faultHitsPacket(EmulatorFault::Stall, job.rowsSent, count)) mStalled = true;
        if (faultHitsPacket(EmulatorFault::Timeout, job.rowsSent, count)) mSilent = true;
        if (faultHitsPacket(EmulatorFault::Disconnect, job.rowsSent, count)) {
            // Unplugged, the scanner forgets its reservation with everything else.
            mGone = true;
            mLocked = false;
            showLock();
        }
        if (mStalled || mSilent || mGone) return false;
        buildDataPacket();
        if (job.rowsSent >= job.rows) job.stage = fault(EmulatorFault::NoImageEnd) ? kStagePageEnd : kStageImageEnd;
        return true;
    }
    case kStageImageEnd: bare(kScanMsgImageEnd); job.stage = kStagePageEnd; return true;
    case kStagePageEnd: bare(kScanMsgPageEnd); job.stage = kStageJobEnd; return true;
    default: bare(kScanMsgJobEnd); job.active = false; return true;
    }
}

int ScannerModel::send(std::uint8_t* data, std::uint32_t size, std::uint32_t* received)
{
    *received = 0;
    std::uint32_t n = 0;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        if (mGone) return kUSBErrNoDevice;
        if (mStalled) return kUSBErrIO;
        if (mSilent) return kUSBErrTimeout;
        if (mCurrentPos >= mCurrent.size() && !nextMessage()) {
            if (mGone) return kUSBErrNoDevice;
            if (mStalled) return kUSBErrIO;
            // Nothing to say: a real device NAKs until the host's time-out.
            // We report that time-out at once rather than sleep through it.
            return kUSBErrTimeout;
        }
        std::size_t left = mCurrent.size() - mCurrentPos;
        // Asking for less than a whole packet while more is coming is a
        // babble error on real USB; the host must never do it.
        if (left > size && size % mOptions.maxPacketSize != 0) return kUSBErrIO;
        n = std::uint32_t(std::min<std::size_t>(left, size));
        std::memcpy(data, mCurrent.data() + mCurrentPos, n);
        mCurrentPos += n;
    }
    *received = n;
    throttle(n);
    return kUSBNoErr;
}

void ScannerModel::throttle(std::uint32_t bytes)
{
    if (mOptions.megabytesPerSecond <= 0) return;
    std::chrono::steady_clock::time_point wakeAt;
    {
        std::lock_guard<std::mutex> guard(mMutex);
        auto now = std::chrono::steady_clock::now();
        // Idle periods do not earn credit for a later burst.
        double due = mRateBytes / (mOptions.megabytesPerSecond * 1e6);
        if (mRateStart == std::chrono::steady_clock::time_point{} ||
            now - mRateStart > std::chrono::duration<double>(due + 0.5)) {
            mRateStart = now;
            mRateBytes = 0;
        }
        mRateBytes += bytes;
        wakeAt = mRateStart + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(mRateBytes / (mOptions.megabytesPerSecond * 1e6)));
    }
    std::this_thread::sleep_until(wakeAt);
}

}  // namespace zentary
