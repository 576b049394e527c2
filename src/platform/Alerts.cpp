#include "platform/Alerts.h"

#include <mutex>

#include "platform/UiLog.h"

namespace zentary {
namespace alerts {

namespace {

class HeadlessPresenter final : public AlertPresenter {
public:
    int present(const AlertRequest&) override { return kFirstButton; }
};

std::mutex sMutex;

std::shared_ptr<AlertPresenter>& presenterSlot()
{
    static std::shared_ptr<AlertPresenter> sPresenter = std::make_shared<HeadlessPresenter>();
    return sPresenter;
}

std::shared_ptr<AlertPresenter> currentPresenter()
{
    std::lock_guard<std::mutex> guard(sMutex);
    return presenterSlot();
}

}  // namespace

int show(const AlertRequest& request)
{
    int answer = 0;
    if (!request.buttons.empty() && request.buttons.size() <= 3) {
        // The presenter runs without our lock held: it blocks until the user
        // answers, and may itself replace the presenter.
        auto presenter = currentPresenter();
        try {
            answer = presenter->present(request);
        } catch (...) {
            // An alert is often shown on the way out of a failure already;
            // it must not raise a second one.
            answer = 0;
        }
        int buttons = static_cast<int>(request.buttons.size());
        if (answer < kFirstButton || answer >= kFirstButton + buttons) answer = 0;
    }
    uilog::write(JsonObject()
                     .add("event", "alert")
                     .add("row", request.row)
                     .add("message", request.message)
                     .add("informative", request.informative)
                     .add("buttons", request.buttons)
                     .add("modal", request.systemModal ? "system" : "application")
                     .add("answer", answer));
    return answer;
}

void setPresenter(std::shared_ptr<AlertPresenter> presenter)
{
    if (!presenter) presenter = std::make_shared<HeadlessPresenter>();
    std::lock_guard<std::mutex> guard(sMutex);
    presenterSlot() = std::move(presenter);
}

}  // namespace alerts
}  // namespace zentary
