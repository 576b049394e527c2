// The progress window's controller: polls the scanner's progress into the
// Progress model every two seconds, switches to the transfer message when
// the scan is done, and turns Cancel into a stop request to the engine.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/RunLoop.h"
#include "ui/Progress.h"
#include "ui/UserInterface.h"

namespace zentary {

struct ScanProgressEngine {
    std::function<float()> scanProgress;  // null: no scanner device, no polling effect
    std::function<void()> stopScanning;
};

class ScanProgressDialog {
public:
    static constexpr std::chrono::milliseconds kProgressInterval{2000};

    // The window, shown and polling; null when it cannot be shown.
    static std::unique_ptr<ScanProgressDialog> initWithDataSourceEngine(UserInterface& ui, ScanProgressEngine engine,
                                                                        const UiBundle* bundle);
    // Stops the poll if it still runs, and closes the window.
    ~ScanProgressDialog();
    ScanProgressDialog(const ScanProgressDialog&) = delete;
    ScanProgressDialog& operator=(const ScanProgressDialog&) = delete;

    void scanDidComplete();
    void close();
    void handleCancel();

    Progress* progress() { return mProgress.get(); }
    bool isPolling() const { return mProgressTimer != 0; }

private:
    ScanProgressDialog(UserInterface& ui, ScanProgressEngine engine);
    void updateProgress();
    void stopPoll();
    UiMessage windowMessage(const char* type) const;

    UserInterface& mUi;
    ScanProgressEngine mEngine;
    std::unique_ptr<Progress> mProgress;
    RunLoop::TimerId mProgressTimer = 0;
    Observable::Token mObserver = 0;
    bool mClosed = false;
    bool mCancelled = false;  // Cancel was taken: the window shows it until closed
    bool mSampled = false;    // the model has had a value: the bar shows it, no longer "busy"
};

}  // namespace zentary
