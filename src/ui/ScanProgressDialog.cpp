#include "ui/ScanProgressDialog.h"

#include <cmath>

namespace zentary {

ScanProgressDialog::ScanProgressDialog(UserInterface& ui, ScanProgressEngine engine)
    : mUi(ui), mEngine(std::move(engine))
{
}

std::unique_ptr<ScanProgressDialog> ScanProgressDialog::initWithDataSourceEngine(UserInterface& ui,
                                                                                 ScanProgressEngine engine,
                                                                                 const UiBundle* bundle)
{
    std::unique_ptr<ScanProgressDialog> dialog(new ScanProgressDialog(ui, std::move(engine)));
    dialog->mProgress = Progress::init(bundle);
    ScanProgressDialog* raw = dialog.get();
    if (dialog->mProgress) {
        dialog->mObserver = dialog->mProgress->addObserver([raw](std::string_view key) {
            // "progressMessage" always follows "isScanning"; one update for both.
            if (key == kIsScanningKey) return;
            if (key == kProgressKey) raw->mSampled = true;
            raw->mUi.send(raw->windowMessage("progress.update"));
            if (key == kProgressKey)
                raw->mUi.logEvent(UiMessage("progress")
                                      .set("percent", static_cast<std::int64_t>(std::lround(raw->mProgress->progress() * 100)))
                                      .set("message", raw->mProgress->progressMessage()));
        });
    }
    ui.setActionHandler("progress", [raw](const UiMessage& message) {
        if (message.type() == "progress.cancel") raw->handleCancel();
    });
    if (!ui.send(dialog->windowMessage("progress.show"))) {
        dialog->mClosed = true;  // never shown: nothing to close or log
        return nullptr;
    }
    ui.logEvent(UiMessage("progress.shown").set("message", dialog->mProgress ? dialog->mProgress->progressMessage() : ""));
    // The first poll comes one interval after the window is up; until then
    // the window shows the bar as busy rather than an empty one that looks
    // stuck. The timer lives on the loop that owns the window.
    dialog->mProgressTimer = ui.loop().schedule(kProgressInterval, [raw] { raw->updateProgress(); }, kProgressInterval);
    return dialog;
}

ScanProgressDialog::~ScanProgressDialog()
{
    stopPoll();
    if (mProgress) mProgress->removeObserver(mObserver);
    close();
    mUi.removeActionHandler("progress");
}

UiMessage ScanProgressDialog::windowMessage(const char* type) const
{
    UiMessage message(type);
    auto text = [&](const char* key, const char* fallback) -> std::string {
        if (!mProgress) return fallback;
        auto it = mProgress->localizedStrings().find(key);
        return it == mProgress->localizedStrings().end() ? std::string(fallback) : it->second;
    };
    std::string cancelling = text(kCancellingKey, kCancelling);
    // Every text the message line can take, so that the window is sized once
    // for the longest and does not jump when the message changes.
    std::vector<std::string> messages{text(kScanningKey, kScanning), text(kTransferringKey, kTransferring), cancelling};
    message.set("title", text(kTitleKey, kTitle))
        .set("cancel", text(kCancelKey, kCancel))
        .set("message", mCancelled ? cancelling : mProgress ? mProgress->progressMessage() : std::string())
        .set("messages", messages)
        .set("cancelling", cancelling)
        .set("progress", mProgress ? static_cast<double>(mProgress->progress()) : 0.0)
        .set("sampled", mSampled)
        .set("scanning", mProgress ? mProgress->isScanning() : true)
        .set("cancelled", mCancelled);
    return message;
}

void ScanProgressDialog::updateProgress()
{
    if (!mEngine.scanProgress || !mProgress) return;
    mProgress->setProgress(mEngine.scanProgress());
}

void ScanProgressDialog::stopPoll()
{
    if (mProgressTimer == 0) return;
    mUi.loop().cancel(mProgressTimer);
    mProgressTimer = 0;
}

void ScanProgressDialog::scanDidComplete()
{
    stopPoll();
    if (mProgress) mProgress->setIsScanning(false);
}

void ScanProgressDialog::handleCancel()
{
    stopPoll();
    mUi.logEvent(UiMessage("progress.cancel"));
    if (!mCancelled && !mClosed) {
        mCancelled = true;
        mUi.send(windowMessage("progress.update"));
    }
    if (mEngine.stopScanning) mEngine.stopScanning();
}

void ScanProgressDialog::close()
{
    if (mClosed) return;
    mClosed = true;
    mUi.send(UiMessage("progress.close"));
    mUi.logEvent(UiMessage("progress.closed"));
}

}  // namespace zentary
