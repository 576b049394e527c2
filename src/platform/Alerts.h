// The user-facing message box with up to three buttons. The data source only
// describes the alert; a presenter shows it: headless by default, the UI
// helper process once one is installed.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace zentary {

struct AlertRequest {
    int row = 0;                        // the alert table row, for the log
    std::string message, informative;   // already translated
    std::vector<std::string> buttons;   // 1..3 titles, the first is the default button
    bool systemModal = false;
};

class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // 1000, 1001 or 1002 for the button pressed, 0 when nothing was shown.
    virtual int present(const AlertRequest& request) = 0;
};

namespace alerts {

inline constexpr int kFirstButton = 1000;

// Shows the alert through the installed presenter and returns 1000, 1001 or
// 1002 for the button pressed, 0 when nothing could be shown. Always writes a
// UiLog line {"event":"alert","row":N,"message":...,"informative":...,
// "buttons":[...],"modal":"application"|"system","answer":N}.
int show(const AlertRequest& request);

// Installs the presenter; null restores the headless one, which answers with
// the default button (1000) at once.
void setPresenter(std::shared_ptr<AlertPresenter> presenter);

}  // namespace alerts
}  // namespace zentary
