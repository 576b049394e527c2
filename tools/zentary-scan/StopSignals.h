// The signals that stop a scan early: Ctrl-C (INT), a closed terminal
// (HUP), kill's default (TERM) and a reader of our output that went away
// (PIPE). Each only asks the scan to stop; the tool then winds the source
// down and removes its files before it exits with 128 + the first signal's
// number, as a shell reports a process that signal ended. A second signal
// does not cut that clean-up short.
#pragma once

#include <atomic>
#include <string>

namespace zentary {

// From here on those four signals only set the flag below.
void catchStopSignals();
const std::atomic<bool>& stopRequested();
// The first of them that arrived, or 0.
int stopSignal();
// "SIGINT", "SIGTERM", ...
std::string stopSignalName(int signal);

}  // namespace zentary
