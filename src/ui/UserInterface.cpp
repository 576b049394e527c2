#include "ui/UserInterface.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace zentary {

namespace {

const char* environment(const char* name)
{
    const char* value = std::getenv(name);
    return value && *value ? value : nullptr;
}

std::string windowOf(const std::string& type)
{
    std::size_t dot = type.find('.');
    return dot == std::string::npos ? std::string() : type.substr(0, dot);
}

}  // namespace

void appendUiLog(const UiMessage& event)
{
    const char* path = environment("ZENTARY_UI_LOG");
    if (!path) return;
    UniqueFd file(::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    if (!file) return;
    // The wire's "type" is the log's "event", the key every line of the log
    // names itself by, alerts included.
    UiMessage entry;
    entry.set("event", event.type());
    for (const auto& [key, value] : event.fields())
        if (key != "type") entry.setValue(key, value);
    // One write per line, so lines from several writers never interleave.
    std::string line = entry.encode() + "\n";
    [[maybe_unused]] ssize_t ignored = ::write(file.get(), line.data(), line.size());
}

UserInterface::Mode UserInterface::modeFromEnvironment()
{
    if (const char* mode = environment("ZENTARY_UI")) {
        if (std::strcmp(mode, "headless") == 0) return Mode::Headless;
        if (std::strcmp(mode, "headless-cancel") == 0) return Mode::HeadlessCancel;
        if (std::strcmp(mode, "helper") == 0) return Mode::Helper;
    }
    return environment("DISPLAY") || environment("WAYLAND_DISPLAY") ? Mode::Helper : Mode::Headless;
}

UserInterface::UserInterface(RunLoop& loop, Mode mode, UiHelper::Options helper)
    : mLoop(loop), mMode(mode), mHelperOptions(std::move(helper)), mLogSink(appendUiLog)
{
}

UserInterface::~UserInterface()
{
    *mAlive = false;
    // Nobody will answer now; let any waiting alert go.
    std::vector<std::int64_t> pending;
    for (const auto& entry : mPendingAlerts) pending.push_back(entry.first);
    for (std::int64_t id : pending) answer(id, 0);
    mHelper.reset();
}

void UserInterface::setActionHandler(const std::string& window, ActionHandler handler)
{
    mHandlers[window] = std::move(handler);
}

void UserInterface::removeActionHandler(const std::string& window)
{
    mHandlers.erase(window);
    mFailureHandlers.erase(window);
}

void UserInterface::setFailureHandler(const std::string& window, std::function<void()> handler)
{
    mFailureHandlers[window] = std::move(handler);
}

void UserInterface::setLogSink(LogSink sink)
{
    mLogSink = std::move(sink);
}

void UserInterface::logEvent(const UiMessage& event)
{
    if (mLogSink) mLogSink(event);
}

bool UserInterface::send(const UiMessage& message)
{
    if (mMode != Mode::Helper) {
        if (message.type() == "dialog.show") {
            // The user of a headless run presses a button at once, but only
            // after the dialog has finished coming up.
            UiMessage press(mMode == Mode::Headless ? "dialog.scan" : "dialog.cancel");
            mLoop.post([this, alive = mAlive, press] {
                if (!*alive) return;
                auto it = mHandlers.find("dialog");
                if (it == mHandlers.end() || !it->second) return;
                ActionHandler handler = it->second;  // the dialog may go away inside
                handler(press);
            });
        }
        return true;
    }
    if (!mHelper) {
        mHelper = std::make_unique<UiHelper>(mLoop, mHelperOptions);
        mHelper->setMessageHandler([this](const UiMessage& received) { this->received(received); });
        mHelper->setFailureHandler([this] { helperFailed(); });
    }
    return mHelper->send(message);
}

void UserInterface::received(const UiMessage& message)
{
    std::string type = message.type();
    if (type == "hello") {
        if (message.integer("version").value_or(0) != kUiProtocolVersion)
            logEvent(UiMessage("ui.warning").set("text", "helper speaks another protocol version"));
        return;
    }
    if (type == "alert.answer") {
        std::int64_t button = message.integer("button").value_or(0);
        answer(message.integer("id").value_or(0), button >= 1000 && button <= 1002 ? static_cast<int>(button) : 0);
        return;
    }
    auto it = mHandlers.find(windowOf(type));
    if (it != mHandlers.end() && it->second) {
        ActionHandler handler = it->second;  // it may remove itself
        handler(message);
    }
}

void UserInterface::helperFailed()
{
    std::vector<std::int64_t> pending;
    for (const auto& entry : mPendingAlerts) pending.push_back(entry.first);
    for (std::int64_t id : pending) answer(id, 0);
    auto handlers = mFailureHandlers;
    for (auto& [window, handler] : handlers)
        if (handler) handler();
}

int UserInterface::startAlert(const UiAlert& alert)
{
    std::int64_t id = mNextAlert++;
    mPendingAlerts[id] = RunLoop::current();
    UiMessage message("alert");
    message.set("id", id)
        .set("row", alert.row)
        .set("message", alert.message)
        .set("informative", alert.informative)
        .set("buttons", alert.buttons)
        .set("systemModal", alert.systemModal)
        .set("title", alert.title)
        .set("icon", alert.icon)
        .set("cancelButton", alert.cancelButton);
    if (!send(message)) {
        mPendingAlerts.erase(id);
        return 0;
    }
    return static_cast<int>(id);
}

void UserInterface::answer(std::int64_t id, int button)
{
    auto it = mPendingAlerts.find(id);
    if (it == mPendingAlerts.end()) return;
    RunLoop* waiting = it->second;
    mPendingAlerts.erase(it);
    {
        std::lock_guard<std::mutex> guard(mWaiter->mutex);
        mWaiter->answers[id] = button;
    }
    mWaiter->cv.notify_all();
    if (waiting) waiting->post([] {});  // wake its runUntil
    if (mHelper && button != 0) mHelper->send(UiMessage("alert.close").set("id", id));
}

int UserInterface::presentAlert(const UiAlert& alert)
{
    if (mMode != Mode::Helper) return 1000;
    RunLoop* own = RunLoop::current();
    std::int64_t id = 0;
    try {
        // The alert state belongs to the loop thread; the caller waits on
        // its own loop, so a caller that is the loop thread keeps it running.
        id = callOn(mLoop, [&] {
            int started = startAlert(alert);
            if (started && mPendingAlerts.count(started)) mPendingAlerts[started] = own;
            return started;
        });
    } catch (...) {
        return 0;
    }
    if (!id) return 0;
    std::shared_ptr<Waiter> waiter = mWaiter;
    auto answered = [&] {
        std::lock_guard<std::mutex> guard(waiter->mutex);
        return waiter->answers.count(id) > 0;
    };
    if (own) {
        own->runUntil(answered, RunLoop::Clock::time_point::max());
    } else {
        std::unique_lock<std::mutex> lock(waiter->mutex);
        waiter->cv.wait(lock, [&] { return waiter->answers.count(id) > 0; });
    }
    std::lock_guard<std::mutex> guard(waiter->mutex);
    auto it = waiter->answers.find(id);
    if (it == waiter->answers.end()) return 0;  // our own loop was stopped under us
    int button = it->second;
    waiter->answers.erase(it);
    return button;
}

}  // namespace zentary
