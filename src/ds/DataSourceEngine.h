// The object behind an open data source, and the class-level dispatcher that
// creates it on MSG_OPENDS and destroys it on MSG_CLOSEDS.
//
// Everything here runs on the data source's loop thread (see DataSource.cpp):
// the engine's state is touched by that one thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <set>
#include <vector>

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "twain/twain.h"

namespace zentary {

class Capabilities;
class CapabilityValue;
class DataSourceDialog;
class OffscreenImage;
class ScanDevice;
class ScanProgressDialog;
class UserInterface;
struct UiBundle;

class DataSourceEngine {
public:
    // TWAIN session states as kept in mState (TWAIN states 4 to 7).
    enum : std::int32_t { kStateOpen = 1, kStateEnabled = 2, kStateTransferReady = 3, kStateTransferring = 4 };
    static constexpr TW_UINT32 kDefaultMinimumMemoryBufferSize = 32768;
    static constexpr std::size_t kFileNameBufferSize = sizeof(TW_STR1024);
    static constexpr const char* kDefaultFileName = "ZentaryScan.tmp";

    // Routes one triplet (everything but the identity request). Returns the
    // TWAIN return code; keeps the condition code for DAT_STATUS.
    static TW_UINT16 processOperationTriplet(TW_IDENTITY* origin, TW_UINT32 group, TW_UINT16 type,
                                             TW_UINT16 message, TW_MEMREF data);
    // True while an engine exists (a session is open).
    static bool exists();
    // Closes the engine, if any: MSG_CLOSEDS, or the library being unloaded
    // while a client still had the source open.
    static void destroyOrphan();

    // Every engine operation the loop starts (a triplet, a timer, a scan
    // notification) runs inside one. An operation may call out to the
    // client, which may close the source from inside its callback: the
    // engine is then torn down at once, but its memory is freed only when
    // the outermost operation has ended, so that no frame still on the
    // stack ever touches a freed engine. Loop thread only.
    class Operation {
    public:
        Operation();
        ~Operation();
        Operation(const Operation&) = delete;
        Operation& operator=(const Operation&) = delete;
    };
    // The condition code DAT_STATUS would report now.
    static TW_UINT16 conditionCode();

    // Builds the engine; null with *conditionCode set when it cannot.
    static std::unique_ptr<DataSourceEngine> initWithOrigin(const TW_IDENTITY* origin, const TW_IDENTITY* source,
                                                            TW_UINT16* conditionCode);
    ~DataSourceEngine();
    DataSourceEngine(const DataSourceEngine&) = delete;
    DataSourceEngine& operator=(const DataSourceEngine&) = delete;

    TW_UINT16 control(TW_IDENTITY* origin, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                      TW_UINT16* conditionCode);
    TW_UINT16 image(TW_IDENTITY* origin, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                    TW_UINT16* conditionCode);

    // The scan cycle.
    // Starts a scan, or retries every 0.25 s (at most 10 times) while the
    // scanner session is still coming up. `retry` is the attempt so far.
    void startScanning(std::optional<int> retry);
    // Asks the scanner to stop the running scan (progress window's Cancel).
    void stopScanning();
    // Enters state 6 and tells the client a transfer is ready.
    void startTransfer();
    // Asks the client to close the source (dialog's Cancel, failed scans).
    void requestClose();

    const TW_IDENTITY& application() const { return mApplication; }
    const TW_IDENTITY& source() const { return mSource; }
    const TW_IMAGELAYOUT& imageLayout() const { return mImageLayout; }
    const TW_SETUPFILEXFER2& file() const { return mFile; }
    const TW_SETUPFILEXFER2& defaultFile() const { return mDefaultFile; }

    std::optional<std::string> imageFile() const { return mImageFile; }
    bool dialogShown() const { return mDialog != nullptr; }
    bool progressShown() const { return mProgressDialog != nullptr; }
    // True once MSG_CLOSEDS has torn the engine down; whatever was under
    // way stops at its next step.
    bool closed() const { return mClosed; }

private:
    DataSourceEngine();
    // Ends everything the session holds (observers, timers, windows, the
    // scanner session, the raw file); idempotent.
    void close();

    // Control group.
    TW_UINT16 capability(TW_UINT16 message, TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    TW_UINT16 event(TW_UINT16 message, TW_EVENT* event, TW_UINT16* conditionCode);
    TW_UINT16 pendingTransfers(TW_UINT16 message, TW_PENDINGXFERS* transfers, TW_UINT16* conditionCode);
    TW_UINT16 setupMemoryTransfer(TW_UINT16 message, TW_SETUPMEMXFER* info, TW_UINT16* conditionCode);
    TW_UINT16 userInterface(TW_UINT16 message, TW_USERINTERFACE* info, TW_UINT16* conditionCode);
    TW_UINT16 transferGroup(TW_UINT16 message, TW_UINT32* group, TW_UINT16* conditionCode);
    TW_UINT16 enable(TW_USERINTERFACE& info, TW_UINT16* conditionCode);
    void disable();
    void endTransfer();
    // After the last transfer of a session enabled with the dialog shown.
    void requestCloseWhenNoDialogReturns();
    void deleteImageFile();
    void redisplayDataSourceDialog();

    // Image group.
    TW_UINT16 imageInfo(TW_UINT16 message, TW_IMAGEINFO* info, TW_UINT16* conditionCode);
    TW_UINT16 imageLayout(TW_UINT16 message, TW_IMAGELAYOUT* layout, TW_UINT16* conditionCode);
    TW_UINT16 setImageLayout(const TW_IMAGELAYOUT& layout, TW_UINT16* conditionCode);
    TW_UINT16 defaultLayout(TW_IMAGELAYOUT& layout);
    // MSG_SET and MSG_RESET of ICAP_FRAMES: the frame of DAT_IMAGELAYOUT, set
    // under the same rules.
    TW_UINT16 frames(TW_UINT16 message, TW_CAPABILITY* cap, TW_UINT16* conditionCode);
    // Makes ICAP_FRAMES show the frame now in mImageLayout.
    void publishFrame();
    TW_UINT16 nativeTransfer(TW_UINT16 message, TW_HANDLE* picture, TW_UINT16* conditionCode);
    TW_UINT16 fileTransfer(TW_UINT16 message, TW_UINT16* conditionCode);
    TW_UINT16 memoryTransfer(TW_UINT16 message, TW_IMAGEMEMXFER* block, TW_UINT16* conditionCode);

    // File transfer set-up.
    TW_UINT16 setupFileTransfer(TW_UINT16 type, TW_UINT16 message, TW_MEMREF info, TW_UINT16* conditionCode);
    TW_UINT16 fillTwainFileTransfer(TW_SETUPFILEXFER& out, const TW_SETUPFILEXFER2& file, TW_UINT16 format,
                                    bool checkExistence);
    TW_UINT16 fillTwainFileTransfer2(TW_SETUPFILEXFER2& out, const TW_SETUPFILEXFER2& file, TW_UINT16 format,
                                     bool checkExistence);
    TW_UINT16 setFileTransferFromTwain(const TW_SETUPFILEXFER& file, TW_UINT16 formatCapability);
    TW_UINT16 setFileTransferFromTwain2(const TW_SETUPFILEXFER2& file, TW_UINT16 formatCapability);
    void resetFileTransferUsingFormat(std::optional<TW_UINT16> format);
    std::optional<TW_UINT16> validateFileFormat(TW_UINT16 format, TW_UINT16 formatCapability,
                                                TW_UINT16* conditionCode);

    // Scan cycle.
    bool prepareForScan();
    bool startNextScan();
    void scanNotification(bool completed);
    void stopObservingScans();
    TW_UINT16 sendMessageToApplication(TW_UINT16 message);
    // Runs `task` on the loop after `delay` unless the engine is gone by then.
    RunLoop::TimerId schedule(std::chrono::milliseconds delay, std::function<void()> task);
    void cancelTimer(std::optional<RunLoop::TimerId>& timer);
    void cancelAllTimers();

    // The settings dialog and the progress window.
    void startUserInterface();
    void stopUserInterface();
    void showDialog();
    void releaseDialog();
    void showProgress();
    void closeProgress();
    void progressScanDidComplete();

    TW_IDENTITY mApplication{};
    TW_IDENTITY mSource{};
    std::int32_t mState = 0;
    bool mClosed = false;
    // Enabled with ShowUI: the dialog closed when the scan started, and only
    // Image Capture's comes back.
    bool mEnabledWithDialog = false;
    // Lives from MSG_ENABLEDS to MSG_DISABLEDS or MSG_CLOSEDS; a message to
    // the client still waiting in the messenger when it is gone is dropped.
    std::shared_ptr<int> mSessionToken;
    std::unique_ptr<Capabilities> mCapabilities;
    std::unique_ptr<ScanDevice> mScanner;
    std::optional<std::string> mImageFile;
    std::int32_t mImageTransferState = 1;
    bool mClientIsImageCapture = false;
    bool mClientIsReadiris = false;
    TW_IMAGELAYOUT mImageLayout{};
    TW_SETUPFILEXFER2 mDefaultFile{};
    TW_SETUPFILEXFER2 mFile{};
    std::int32_t mFileFormatType = 0;
    bool mFileIsSet = false;
    TW_UINT32 mDefaultMinimumMemoryBufferSize = kDefaultMinimumMemoryBufferSize;
    TW_UINT32 mMinimumMemoryBufferSize = kDefaultMinimumMemoryBufferSize;
    TW_UINT32 mMaximumMemoryBufferSize = 0xFFFFFFFF;
    TW_UINT32 mMemoryTransferRowsTransfered = 0;
    std::unique_ptr<OffscreenImage> mMemoryTransferGraphicsWorld;
    // The buffers behind mFile.FileName and mDefaultFile.FileName.
    std::unique_ptr<char[]> mFileName;
    std::unique_ptr<char[]> mDefaultFileName;

    RunLoop* mLoop = nullptr;  // the loop the engine lives on
    std::set<RunLoop::TimerId> mTimers;
    std::optional<RunLoop::TimerId> mImageCaptureMultipleScanTimer;
    std::vector<NotificationCenter::Token> mScanObservers;
    std::shared_ptr<UserInterface> mUi;
    std::unique_ptr<UiBundle> mUiBundle;
    std::unique_ptr<DataSourceDialog> mDialog;
    std::unique_ptr<ScanProgressDialog> mProgressDialog;
};

}  // namespace zentary
