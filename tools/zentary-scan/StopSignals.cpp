#include "StopSignals.h"

#include <signal.h>

namespace zentary {

namespace {

constexpr int kStopSignals[] = {SIGHUP, SIGINT, SIGPIPE, SIGTERM};

// Written from the handler: plain lock-free atomics are all it may touch.
std::atomic<bool> sStop{false};
std::atomic<int> sFirst{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void onStopSignal(int signal)
{
    int none = 0;
    sFirst.compare_exchange_strong(none, signal);
    sStop.store(true);
}

}  // namespace

void catchStopSignals()
{
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : kStopSignals) sigaddset(&action.sa_mask, signal);
    // Restarted system calls: the data source's threads, which may take a
    // signal too, never see EINTR on our account.
    action.sa_flags = SA_RESTART;
    for (int signal : kStopSignals) sigaction(signal, &action, nullptr);
}

const std::atomic<bool>& stopRequested()
{
    return sStop;
}

int stopSignal()
{
    return sFirst.load();
}

std::string stopSignalName(int signal)
{
    switch (signal) {
    case SIGHUP: return "SIGHUP";
    case SIGINT: return "SIGINT";
    case SIGPIPE: return "SIGPIPE";
    case SIGTERM: return "SIGTERM";
    }
    return "signal " + std::to_string(signal);
}

}  // namespace zentary
