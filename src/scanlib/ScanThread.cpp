#include "scanlib/ScanThread.h"

#include "scanlib/PacketUtils.h"
#include "scanlib/ScanDevice.h"
#include "scanlib/ScanLibError.h"

#include <cmath>
#include <cstring>
#include <new>

namespace zentary {

ScanThread::ScanThread(ScanThreadParent* parent, std::int32_t tag, USBInterface* interface, RunLoop& loop)
    : mParent(parent), mTag(tag), mInterface(interface), mLoop(loop), mSelf(std::make_shared<ScanThread*>(this))
{
}

ScanThread::~ScanThread()
{
    exit();
}

int ScanThread::readExactly(std::uint8_t* buffer, std::uint32_t size, std::uint32_t timeout, std::uint32_t* received)
{
    *received = size;
    if (!mInterface) {
        *received = 0;
        return kScanLibErrGeneric;
    }
    int result = mInterface->readSynchronouslyIntoBuffer(buffer, received, timeout, kCompletionTimeOut);
    return ScanLibError::mapUSBInterfaceError(result, kScanLibErrRead);
}

int ScanThread::startScanToFile(const std::string& path)
{
    return startJob(path, nullptr);
}

int ScanThread::startScanToSink(ScanRowSink* sink)
{
    return sink ? startJob({}, sink) : kScanLibErrCreateFile;
}

int ScanThread::startJob(const std::string& path, ScanRowSink* sink)
{
    if (mExited) return kScanLibErrNotOpen;
    if (mJobRunning) return kScanLibErrBusy;
    mJobState = kJobIdle;
    mNumRowsToScan = 1;
    mTotalScanlines = 0;
    mFileHeaderWritten = false;
    mFileHeaderFinal = false;
    mPixelsPerRow = 0;
    mFirstDataPacket = false;
    mLastError = 0;
    mFirstError = 0;
    mFinishedFile.release();

    mSink = sink;
    if (!mSink && mFid.create(path) != 0) return kScanLibErrCreateFile;
    std::uint32_t status = 0;
    mLastError = PacketUtils::sendPacketToInterface(mInterface, kScanMsgStartScan, &status);
    if (mLastError != 0) {
        mFid.discard();
        mSink = nullptr;
        return mLastError;
    }
    mJobRunning = true;
    mJobState = kJobStarted;
    scheduleStep();
    return 0;
}

void ScanThread::scheduleStep()
{
    // The step re-posts itself instead of running in a loop, so a stopScan or
    // exit queued by the session runs between two packets. The weak handle
    // lets a step that is still queued when this object dies do nothing.
    mLoop.post([self = std::weak_ptr<ScanThread*>(mSelf)] {
        auto alive = self.lock();
        if (!alive) return;
        ScanThread* thread = *alive;
        thread->readNextPacket();
        if (thread->mJobRunning && !thread->mExited) thread->scheduleStep();
    });
}

void ScanThread::readNextPacket()
{
    if (!mJobRunning || mExited) return;
    try {
        if (mLastError == 0) {
            std::uint8_t bytes[kScanHeaderSize];
            std::uint32_t count = 0;
            std::uint32_t timeout = mFirstDataPacket ? kFirstDataTimeOut : kStreamTimeOut;
            mFirstDataPacket = false;
            mLastError = readExactly(bytes, kScanHeaderSize, timeout, &count);
            ScanHeader header{};
            if (mLastError == 0) {
                // Half a header is no header.
                if (count != kScanHeaderSize) {
                    mLastError = kScanLibErrRead;
                } else {
                    std::memcpy(&header, bytes, sizeof header);
                    PacketUtils::convertScanHeaderToHost(&header);
                    if (header.signature != kScanPacketSignature) mLastError = kScanLibErrRead;
                }
            }
            if (mLastError == 0) {
                switch (header.message) {
                case kScanMsgScanAborted: mLastError = kScanLibErrAborted; break;
                case kScanMsgScanData: readAndProcessScanDataOfLength(header.length); break;
                case kScanMsgJobStart: mLastError = handleStartScanJob(); break;
                case kScanMsgPageStart:
                case kScanMsgPageEnd: break;
                case kScanMsgImageStart:
                    if (mJobState != kJobCancelling) mJobState = kJobScanning;
                    mFirstDataPacket = true;
                    break;
                case kScanMsgJobEnd: endScanning(); return;
                case kScanMsgImageEnd:
                    if (mJobState != kJobCancelling) mJobState = kJobImageDone;
                    mLastError = finalizeFileHeader();
                    break;
                default: mLastError = kScanLibErrRead; break;
                }
            }
        }
    } catch (...) {
        mLastError = kScanLibErrRead;
    }
    if (mLastError != 0) endScanning();
}

int ScanThread::handleStartScanJob()
{
    std::uint8_t wire[kSettingsSize];
    std::uint32_t count = 0;
    int result = readExactly(wire, kSettingsSize, kStreamTimeOut, &count);
    if (result != 0) return result;
    if (count != kSettingsSize) return kScanLibErrRead;
    ScanJobRecord record;
    PacketUtils::settingsFromWire(&record, wire);
    auto dpi = std::int32_t(record.fields[kSettingsResolution]);
    // Without a positive resolution neither the file nor the row count means anything.
    if (dpi <= 0) return kScanLibErrRead;
    mDPI = dpi;
    mColorType = std::int32_t(record.fields[kSettingsColorFlag]);
    std::uint32_t height = record.fields[kSettingsAreaBottom] - record.fields[kSettingsAreaTop];
    mNumRowsToScan = std::int32_t(pixelsAcross(height, mDPI));
    return 0;
}

void ScanThread::readAndProcessScanDataOfLength(std::uint32_t length)
{
    // Rows after the image's end would overwrite the start of the image
    // (the header rewrite leaves the position there); refuse them.
    if (mJobState == kJobImageDone || length < kScanDataHeaderSize ||
        length - kScanDataHeaderSize > kMaxDataPacketSize) {
        mLastError = kScanLibErrRead;
        return;
    }
    std::uint8_t wire[kScanDataHeaderSize];
    std::uint32_t count = 0;
    mLastError = readExactly(wire, kScanDataHeaderSize, kStreamTimeOut, &count);
    if (mLastError != 0) return;
    if (count != kScanDataHeaderSize) {
        mLastError = kScanLibErrRead;
        return;
    }
    ScanDataHeader header;
    std::memcpy(&header, wire, sizeof header);
    PacketUtils::convertScanDataHeaderToHost(&header);

    if (!mFileHeaderWritten) {
        mLastError = initFileHeaderWithPixelsPerRow(header.pixelsPerRow);
        if (mLastError != 0) return;
    }
    const std::uint32_t pixelBytes = length - kScanDataHeaderSize;
    if (pixelBytes > mDataBufrSize) {
        mDataBufr.reset();
        mDataBufrSize = 0;
        mDataBufr.reset(new (std::nothrow) std::uint8_t[pixelBytes]);
        if (!mDataBufr) {
            mLastError = kScanLibErrGeneric;
            return;
        }
        mDataBufrSize = pixelBytes;
    }
    mLastError = readExactly(mDataBufr.get(), pixelBytes, kStreamTimeOut, &count);
    if (mLastError != 0) return;

    // Everything the device said about the rows is checked against what it
    // sent before a byte of them is touched: a row of another width or pixel
    // size would make the file unreadable, and rows that do not fit the bytes
    // received would be read past the buffer.
    const std::uint32_t bytesPerPixel = mColorType == 1 ? 4 : 1;
    if (header.bytesPerPixel != bytesPerPixel || header.pixelsPerRow != mPixelsPerRow ||
        header.rowPitchPixels < header.pixelsPerRow ||
        std::uint64_t(header.rows) * bytesPerPixel * header.rowPitchPixels > count) {
        mLastError = kScanLibErrRead;
        return;
    }
    writeDataOfLength(count, header);
    if (mLastError != 0) return;
    mTotalScanlines += std::int32_t(header.rows);
    if (mParent)
        mParent->setScanProgress(float(mTotalScanlines) / float(mNumRowsToScan > 0 ? mNumRowsToScan : 1));
}

void ScanThread::writeDataOfLength(std::uint32_t count, const ScanDataHeader& header)
{
    if ((!mSink && !mFid.isOpen()) || count < 1) {
        mLastError = kScanLibErrWriteFile;
        return;
    }
    std::size_t rowBytes = std::size_t(header.bytesPerPixel) * header.pixelsPerRow;
    std::size_t pitch = std::size_t(header.bytesPerPixel) * header.rowPitchPixels;
    mLastError = mSink ? mSink->appendRows(mDataBufr.get(), header.rows, rowBytes, pitch)
                       : mFid.appendRows(mDataBufr.get(), header.rows, rowBytes, pitch);
}

int ScanThread::initFileHeaderWithPixelsPerRow(std::uint32_t pixelsPerRow)
{
    if (mColorType != 0 && mColorType != 1) return kScanLibErrCreateFile;
    if (pixelsPerRow == 0) return kScanLibErrRead;
    bool color = mColorType == 1;
    RawFileHeader header{kRawFileSignature,
                         kRawFileHeaderLength,
                         std::uint32_t(color ? kColorTypeColor : kColorTypeGray),
                         color ? 4u : 1u,
                         8,
                         std::uint32_t(mDPI),
                         pixelsPerRow,
                         std::uint32_t(mNumRowsToScan)};
    int result = mSink ? mSink->beginImage(header) : mFid.writeHeader(header);
    if (result != 0) return result;
    mFileHeaderWritten = true;
    mPixelsPerRow = pixelsPerRow;
    return 0;
}

int ScanThread::finalizeFileHeader()
{
    auto rows = std::uint32_t(mTotalScanlines);
    int result = mSink ? mSink->endImage(rows) : mFid.finalizeRows(rows);
    if (result == 0) mFileHeaderFinal = true;
    return result;
}

void ScanThread::stopScan()
{
    // After the job's end a cancel would reach an idle scanner, or the next
    // job's scanner, so it goes only to a running job.
    if (!mJobRunning) return;
    if (mInterface) PacketUtils::sendPacketToInterface(mInterface, kScanMsgCancelScan);
    mJobState = kJobCancelling;
}

void ScanThread::endScanning()
{
    if (mFirstError == 0) mFirstError = mLastError;
    if (mJobState != kJobCancelling && mLastError != 0 && mLastError != kScanLibErrAborted) {
        mLastError = 0;
        stopScan();
        return;
    }
    finishJob();
}

void ScanThread::finishJob()
{
    int error = mLastError;
    // A job the scanner closed without an image end still leaves a file whose
    // header tells the rows it holds. A job that delivered no image at all
    // did not complete, whatever packet closed it.
    if (error == 0 && mFileHeaderWritten && !mFileHeaderFinal) error = finalizeFileHeader();
    if (error == 0 && !mFileHeaderWritten) error = mJobState == kJobCancelling ? kScanLibErrAborted : kScanLibErrRead;
    if (error == 0)
        mFinishedFile = mFid.commit();
    else
        mFid.discard();
    if (mFirstError == 0) mFirstError = error;
    mLastError = error;
    mDataBufr.reset();
    mDataBufrSize = 0;
    mSink = nullptr;
    mJobRunning = false;
    mJobState = kJobIdle;
    if (mParent) mParent->scanDone(error);
}

void ScanThread::exit()
{
    mExited = true;
    if (mJobRunning) {
        mJobRunning = false;
        mFid.discard();
        mSink = nullptr;
    }
    mDataBufr.reset();
    mDataBufrSize = 0;
    mJobState = kJobIdle;
}

}  // namespace zentary
