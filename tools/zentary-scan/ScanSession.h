// One acquisition as a TWAIN client does it: open the source, negotiate
// mode, resolution, frame and transfer mechanism, enable, wait for the
// transfer to be ready, transfer, end the transfer, disable, close. Every
// failure comes back as an exit code and one line for the user, naming the
// condition code and the alert the user saw.
#pragma once

#include <atomic>
#include <string>

#include "Documents.h"
#include "TwainLink.h"
#include "Feedback.h"
#include "ScanOptions.h"

namespace zentary {

struct SessionResult {
    int exitCode = kExitOk;
    std::string message;  // what to print: the summary on success, the error otherwise
};

class ScanSession {
public:
    // `workDir` is the private directory the data source was given as
    // TMPDIR; `uiLog` the file it was given as ZENTARY_UI_LOG.
    ScanSession(TwainLink& source, const ScanOptions& options, ProgressReporter& progress,
                const std::atomic<bool>& interrupted, std::string workDir, std::string uiLog);

    SessionResult scan();
    SessionResult list();
    // With --ocr: the engine, its language loaded, that recognises each page.
    void setOcrEngine(OcrEngine* engine) { mOcr = engine; }

private:
    SessionResult scanDocument();
    SessionResult scanPage(Document& document);
    // Before a page after the first: true to go on, false when the user is done.
    bool askForPage(int page);
    SessionResult receiveImage(const TW_IMAGEINFO& info, std::unique_ptr<OffscreenImage>* image);
    SessionResult receiveMemory(const TW_IMAGEINFO& info, std::unique_ptr<OffscreenImage>* image);
    SessionResult negotiate();
    SessionResult waitForTransfer();
    SessionResult transfer();
    SessionResult transferNative(const TW_IMAGEINFO& info, const std::string& target);
    SessionResult transferMemory(const TW_IMAGEINFO& info, const std::string& target);
    SessionResult transferFile(const std::string& target);
    // The failure of a triplet: its condition code and any new alert.
    SessionResult failure(int exitCode, const std::string& what);
    std::string alertText();
    void windDown();
    void windDownToOpen();  // disabled, transfers reset: the source stays open
    double scanFraction() const;

    TwainLink& mSource;
    const ScanOptions& mOptions;
    ProgressReporter& mProgress;
    const std::atomic<bool>& mInterrupted;
    std::string mWorkDir;
    std::string mUiLog;
    std::size_t mAlertsShown = 0;
    bool mEnabled = false;
    bool mTransferReady = false;
    std::string mFileTarget;  // the temporary file a file transfer writes
    Mechanism mMechanism;     // the options' choice, or memory for a path too long for a file transfer
    OutputFormat mFileFormat; // what a file transfer writes: the output's format, or TIFF for a document's page
    OcrEngine* mOcr = nullptr;
    TW_IMAGEINFO mLastInfo{};
};

}  // namespace zentary
