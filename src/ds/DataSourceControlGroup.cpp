// The DG_CONTROL triplets that need an open engine.
#include <cstdio>

#include "capabilities/Capabilities.h"
#include "ds/DSAlerts.h"
#include "ds/DataSourceEngine.h"
#include "imaging/RawFileReader.h"
#include "scanlib/ScanDevice.h"

namespace zentary {

using namespace twain;

namespace {

TW_UINT16 failWith(TW_UINT16* conditionCode, TW_UINT16 code)
{
    if (conditionCode) *conditionCode = code;
    return TWRC_FAILURE;
}

constexpr std::chrono::milliseconds kRedisplayDelay{250};

}  // namespace

TW_UINT16 DataSourceEngine::control(TW_IDENTITY* /*origin*/, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                                    TW_UINT16* conditionCode)
{
    switch (type) {
    case DAT_CAPABILITY:
        return capability(message, static_cast<TW_CAPABILITY*>(data), conditionCode);
    case DAT_EVENT:
        return event(message, static_cast<TW_EVENT*>(data), conditionCode);
    case DAT_PENDINGXFERS:
        return pendingTransfers(message, static_cast<TW_PENDINGXFERS*>(data), conditionCode);
    case DAT_SETUPMEMXFER:
        return setupMemoryTransfer(message, static_cast<TW_SETUPMEMXFER*>(data), conditionCode);
    case DAT_SETUPFILEXFER:
    case DAT_SETUPFILEXFER2:
        return setupFileTransfer(type, message, data, conditionCode);
    case DAT_USERINTERFACE:
        return userInterface(message, static_cast<TW_USERINTERFACE*>(data), conditionCode);
    case DAT_XFERGROUP:
        return transferGroup(message, static_cast<TW_UINT32*>(data), conditionCode);
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::capability(TW_UINT16 message, TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    if (!cap) return failWith(conditionCode, TWCC_BADVALUE);
    Capabilities& caps = *mCapabilities;
    switch (message) {
    case MSG_GET:
        return caps.getTwain(cap, conditionCode);
    case MSG_GETCURRENT:
        return caps.getCurrentTwain(cap, conditionCode);
    case MSG_GETDEFAULT:
        return caps.getDefaultTwain(cap, conditionCode);
    case MSG_QUERYSUPPORT:
        return caps.querySupportTwain(cap, conditionCode);
    case MSG_SET:
    case MSG_RESET:
        // Capabilities are negotiated before the source is enabled; from
        // then on they can be read but not changed.
        if (mState != kStateOpen) return failWith(conditionCode, TWCC_SEQERROR);
        if (cap->Cap == ICAP_FRAMES) return frames(message, cap, conditionCode);  // the layout's rules
        return message == MSG_SET ? caps.setTwain(cap, conditionCode) : caps.resetTwain(cap, conditionCode);
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::event(TW_UINT16 message, TW_EVENT* event, TW_UINT16* conditionCode)
{
    if (!event) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_PROCESSEVENT) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState < kStateEnabled) return failWith(conditionCode, TWCC_SEQERROR);
    // Our windows live in another process: no client event is ever ours.
    event->TWMessage = MSG_NULL;
    return TWRC_NOTDSEVENT;
}

TW_UINT16 DataSourceEngine::pendingTransfers(TW_UINT16 message, TW_PENDINGXFERS* transfers,
                                             TW_UINT16* conditionCode)
{
    if (!transfers) return failWith(conditionCode, TWCC_BADVALUE);
    bool ready = mState == kStateTransferReady || mState == kStateTransferring;
    switch (message) {
    case MSG_GET:
        // One scan gives exactly one image.
        transfers->Count = ready ? 1 : 0;
        return ready ? TWRC_SUCCESS : failWith(conditionCode, TWCC_SEQERROR);
    case MSG_ENDXFER:
        transfers->Count = 0;
        if (!ready) return failWith(conditionCode, TWCC_SEQERROR);
        endTransfer();
        return TWRC_SUCCESS;
    case MSG_RESET:
        if (mState != kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
        deleteImageFile();
        mImageTransferState = 1;
        mState = kStateEnabled;
        transfers->Count = 0;
        if (!mClientIsImageCapture) requestCloseWhenNoDialogReturns();
        return TWRC_SUCCESS;
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

void DataSourceEngine::endTransfer()
{
    mMemoryTransferGraphicsWorld.reset();
    mMemoryTransferRowsTransfered = 0;
    deleteImageFile();
    mImageTransferState = 1;
    mState = kStateEnabled;
    if (mClientIsImageCapture) {
        cancelTimer(mImageCaptureMultipleScanTimer);
        mImageCaptureMultipleScanTimer = schedule(kRedisplayDelay, [this] { redisplayDataSourceDialog(); });
    } else {
        requestCloseWhenNoDialogReturns();
    }
}

void DataSourceEngine::requestCloseWhenNoDialogReturns()
{
    // The dialog closed when the scan started and does not come back: without
    // a close request the client would wait in state 5 with nothing on
    // screen. It goes out as after Cancel, once the client has had the same
    // 0.25 s to disable on its own (which cancels it).
    if (mEnabledWithDialog) schedule(kRedisplayDelay, [this] { requestClose(); });
}

void DataSourceEngine::deleteImageFile()
{
    if (!mImageFile) return;
    std::remove(mImageFile->c_str());
    mImageFile.reset();
}

TW_UINT16 DataSourceEngine::setupMemoryTransfer(TW_UINT16 message, TW_SETUPMEMXFER* info, TW_UINT16* conditionCode)
{
    if (!info) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState == kStateOpen || mState == kStateEnabled) {
        mMinimumMemoryBufferSize = mDefaultMinimumMemoryBufferSize;
        mMaximumMemoryBufferSize = 0xFFFFFFFF;
        *info = {mMinimumMemoryBufferSize, 0xFFFFFFFF, 0xFFFFFFFF};
        return TWRC_SUCCESS;
    }
    if (mState != kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);

    RawFileHeader header{};
    if (!mImageFile || !readRawScanFileHeader(&header, *mImageFile)) return failWith(conditionCode, TWCC_OPERATIONERROR);
    std::uint64_t samples = header.colorType == 0 ? 3 : header.bytesPerPixel;
    std::uint64_t rowBytes = (samples * header.bitsPerSample * header.pixelsPerRow + 7) / 8;
    // The memory transfer pads each row by its remainder modulo 4, not up
    // to a multiple of 4; both sides use this same rule.
    std::uint64_t paddedRow = rowBytes + rowBytes % 4;
    std::uint64_t total = paddedRow * header.rows;
    if (paddedRow > 0xFFFFFFFF || total > 0xFFFFFFFF) return failWith(conditionCode, TWCC_OPERATIONERROR);
    mMinimumMemoryBufferSize = static_cast<TW_UINT32>(paddedRow);
    mMaximumMemoryBufferSize = static_cast<TW_UINT32>(total);
    *info = {mMinimumMemoryBufferSize, mMaximumMemoryBufferSize, mMaximumMemoryBufferSize};
    return TWRC_SUCCESS;
}

TW_UINT16 DataSourceEngine::userInterface(TW_UINT16 message, TW_USERINTERFACE* info, TW_UINT16* conditionCode)
{
    switch (message) {
    case MSG_ENABLEDS:
        if (!info) return failWith(conditionCode, TWCC_BADVALUE);
        if (mState != kStateOpen) return failWith(conditionCode, TWCC_SEQERROR);
        return enable(*info, conditionCode);
    case MSG_DISABLEDS:
        if (mState != kStateEnabled) return failWith(conditionCode, TWCC_SEQERROR);
        disable();
        return TWRC_SUCCESS;
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::enable(TW_USERINTERFACE& info, TW_UINT16* conditionCode)
{
    if (!mScanner) return failWith(conditionCode, TWCC_BUMMER);
    if (mScanner->openSession() != 0) {
        DSAlerts::displayMessage(3);
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    }
    mSessionToken = std::make_shared<int>(0);
    mEnabledWithDialog = info.ShowUI == 1;
    if (info.ShowUI == 1) {
        info.ModalUI = 0;  // the dialog is a modeless window
        mState = kStateEnabled;
        showDialog();
        return TWRC_SUCCESS;
    }
    if (mClientIsImageCapture) {
        // This system is past 10.4 in the sense that matters: the newer
        // advice of the two is the one that applies.
        DSAlerts::displaySystemModalMessage(12);
        // Closing the session keeps a later MSG_ENABLEDS from finding it
        // open and failing for that reason alone.
        mScanner->closeSession();
        mSessionToken.reset();
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    }
    std::optional<CapabilityValue> indicators = mCapabilities->currentValue(CAP_INDICATORS);
    if (indicators && indicators->isNumber() && indicators->number() != 0) showProgress();
    mState = kStateEnabled;
    startScanning(std::nullopt);
    return TWRC_SUCCESS;
}

void DataSourceEngine::disable()
{
    // Whatever the enabled session had under way ends here: a retry, the
    // announcement of a scan that just completed, the Image Capture timer.
    // The scan they belong to is gone, and so is its raw file.
    mSessionToken.reset();
    cancelAllTimers();
    stopObservingScans();
    if (mDialog)
        releaseDialog();
    else if (mProgressDialog)
        closeProgress();
    if (mScanner) mScanner->closeSession();
    deleteImageFile();
    mState = kStateOpen;
}

void DataSourceEngine::redisplayDataSourceDialog()
{
    mImageCaptureMultipleScanTimer.reset();
    if (mProgressDialog) closeProgress();
    if (!mDialog) showDialog();
}

TW_UINT16 DataSourceEngine::transferGroup(TW_UINT16 message, TW_UINT32* group, TW_UINT16* conditionCode)
{
    if (!group) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState > kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
    *group = DG_IMAGE;
    return TWRC_SUCCESS;
}

}  // namespace zentary
