// The settings dialog and the progress window as the engine drives them.
//
// Without a display (ZENTARY_UI=headless, or no DISPLAY) nothing is drawn:
// the dialog answers at once as a user pressing Scan would
// (headless-cancel: Cancel), and every event is written to ZENTARY_UI_LOG.
#include <cstdlib>
#include <cstring>

#include "ds/DataSourceEngine.h"
#include "platform/UiLog.h"

namespace zentary {

namespace {

void logEvent(const char* event, const char* action)
{
    uilog::write(JsonObject().add("event", event).add("action", action));
}

bool headlessCancel()
{
    const char* mode = std::getenv("ZENTARY_UI");
    return mode && std::strcmp(mode, "headless-cancel") == 0;
}

}  // namespace

void DataSourceEngine::showDialog()
{
    mDialogShown = true;
    logEvent("dialog", "shown");
    // The user's answer comes later, from the loop, as a click would.
    bool cancel = headlessCancel();
    schedule(std::chrono::milliseconds::zero(), [this, cancel] {
        if (!mDialogShown) return;
        logEvent("dialog", cancel ? "cancel" : "scan");
        if (cancel)
            requestClose();
        else
            startScanning(std::nullopt);
    });
}

void DataSourceEngine::releaseDialog()
{
    if (!mDialogShown) return;
    mDialogShown = false;
    logEvent("dialog", "closed");
}

void DataSourceEngine::showProgress()
{
    mProgressShown = true;
    logEvent("progress", "shown");
}

void DataSourceEngine::closeProgress()
{
    if (!mProgressShown) return;
    mProgressShown = false;
    logEvent("progress", "closed");
}

void DataSourceEngine::progressScanDidComplete()
{
    logEvent("progress", "scan-complete");
}

}  // namespace zentary
