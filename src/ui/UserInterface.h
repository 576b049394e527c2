// Where the data source's windows appear: in the helper process, or nowhere.
//
// The window controllers (settings dialog, progress window) and the alerts
// talk to this one object. It picks the mode from ZENTARY_UI, starts the
// helper when a window is first shown, routes what the user does back to the
// controller of that window on the engine's loop, and stands in for the user
// when there is no display. Every event goes to the user-interface log.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/RunLoop.h"
#include "ui/UiHelper.h"
#include "ui/UiProtocol.h"

namespace zentary {

// An alert as the helper draws it; the texts are translated already.
struct UiAlert {
    int row = 0;
    std::string message, informative;
    std::vector<std::string> buttons;  // the first one is the default
    bool systemModal = false;
    std::string title;        // the window title: the product's name
    std::string icon;         // "information", "warning", "critical" or "question"
    int cancelButton = -1;    // index of the button Escape presses, -1: none
};

class UserInterface {
public:
    enum class Mode { Helper, Headless, HeadlessCancel };
    // ZENTARY_UI: "headless", "headless-cancel", "helper"; otherwise the
    // helper when DISPLAY or WAYLAND_DISPLAY is set, else headless.
    static Mode modeFromEnvironment();

    using ActionHandler = std::function<void(const UiMessage&)>;
    using LogSink = std::function<void(const UiMessage&)>;

    // `helper` describes the helper process; used in Mode::Helper only.
    UserInterface(RunLoop& loop, Mode mode, UiHelper::Options helper);
    ~UserInterface();
    UserInterface(const UserInterface&) = delete;
    UserInterface& operator=(const UserInterface&) = delete;

    Mode mode() const { return mMode; }
    RunLoop& loop() { return mLoop; }

    // Messages from the helper whose type starts with "<window>." go to the
    // handler of that window, on the loop.
    void setActionHandler(const std::string& window, ActionHandler handler);
    void removeActionHandler(const std::string& window);
    // Told on the loop when the helper is given up, for every window shown.
    void setFailureHandler(const std::string& window, std::function<void()> handler);

    // Puts a window on screen or changes it ("<window>.show", ".update",
    // ".close"). False when the window cannot be shown at all. In headless
    // mode a shown settings dialog is answered at once, on the loop.
    bool send(const UiMessage& message);

    // Shows an alert and waits for the answer while keeping the caller's run
    // loop served: 1000, 1001 or 1002 for the button, 0 when nothing could
    // be shown. Headless: the default button. Any thread.
    int presentAlert(const UiAlert& alert);

    // One line of the user-interface log. The default sink appends to the
    // file named by ZENTARY_UI_LOG.
    void logEvent(const UiMessage& event);
    void setLogSink(LogSink sink);

    // The helper, once started (tests only).
    UiHelper* helper() { return mHelper.get(); }

private:
    struct Waiter {
        std::mutex mutex;
        std::condition_variable cv;
        std::map<std::int64_t, int> answers;
    };
    void received(const UiMessage& message);
    void helperFailed();
    int startAlert(const UiAlert& alert);
    void answer(std::int64_t id, int button);

    RunLoop& mLoop;
    Mode mMode;
    UiHelper::Options mHelperOptions;
    std::unique_ptr<UiHelper> mHelper;
    std::map<std::string, ActionHandler> mHandlers;
    std::map<std::string, std::function<void()>> mFailureHandlers;
    LogSink mLogSink;
    std::shared_ptr<Waiter> mWaiter = std::make_shared<Waiter>();
    std::map<std::int64_t, RunLoop*> mPendingAlerts;  // id -> loop of the thread waiting
    std::int64_t mNextAlert = 1;
    std::shared_ptr<bool> mAlive = std::make_shared<bool>(true);
};

// Appends one JSON line to the file named by ZENTARY_UI_LOG, if any, with the
// message's type under "event".
void appendUiLog(const UiMessage& event);

}  // namespace zentary
