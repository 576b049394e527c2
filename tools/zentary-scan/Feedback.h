// What the user sees while zentary-scan works: a progress bar redrawn in
// place when stderr is a terminal, a plain line per phase otherwise; and
// the alerts the data source showed, read back from its UI log.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zentary {

class ProgressReporter {
public:
    explicit ProgressReporter(bool terminal) : mTerminal(terminal) {}
    ~ProgressReporter() { finish(); }
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    // Starts a phase ("Scanning", "Transferring"); a plain line without a terminal.
    void phase(const std::string& name);
    // 0..1 within the phase; drawn at most ten times a second.
    void update(double fraction);
    // Ends the bar's line, so the next message starts on its own.
    void finish();

private:
    void draw(double fraction);
    bool mTerminal;
    bool mDrawn = false;
    std::string mPhase;
    std::chrono::steady_clock::time_point mLastDraw;
};

struct AlertSeen {
    int row = 0;
    std::string message;
    std::string informative;
};

// The UI log the data source appends to: alerts, and whether the user
// cancelled in the dialog or the progress window.
struct UiLogSummary {
    std::vector<AlertSeen> alerts;
    bool cancelled = false;
    int percent = -1;  // the last scan progress the progress window showed
};
UiLogSummary readUiLog(const std::string& path);

// The string value of `key` in one flat JSON line, unescaped; empty when absent.
std::string jsonString(const std::string& line, const std::string& key);

}  // namespace zentary
