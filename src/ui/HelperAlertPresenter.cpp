#include "ui/HelperAlertPresenter.h"

#include <iterator>

namespace zentary {

namespace {

// How each row of the alert table looks: the icon says how bad it is, and a
// row that offers "Cancel" lets Escape and the close box press it.
struct RowLook {
    const char* icon;
    int cancelButton;
};
constexpr RowLook kRows[] = {
    {"information", -1},  // 0: no texts
    {"critical", -1},     // 1: an unexpected error
    {"warning", -1},      // 2: no scanner
    {"critical", -1},     // 3: cannot connect
    {"warning", -1},      // 4: scanner busy or gone
    {"question", 1},      // 5: Apply / Cancel / Discard
    {"warning", 1},       // 6: Ok / Cancel before discarding
    {"warning", -1},      // 7: not enough disk space
    {"critical", -1},     // 8: the image could not be acquired
    {"warning", -1},      // 9: image too big
    {"warning", -1},      // 10: image too big for native transfer
    {"warning", -1},      // 11: configuration not supported
    {"warning", -1},      // 12: configuration not supported
};

}  // namespace

int HelperAlertPresenter::present(const AlertRequest& request)
{
    if (!mUi) return 0;
    UiAlert alert;
    alert.row = request.row;
    alert.message = request.message;
    alert.informative = request.informative;
    alert.buttons = request.buttons;
    alert.systemModal = request.systemModal;
    alert.title = mTitle;
    RowLook look = request.row >= 0 && request.row < static_cast<int>(std::size(kRows)) ? kRows[request.row]
                                                                                         : RowLook{"warning", -1};
    alert.icon = look.icon;
    if (look.cancelButton < static_cast<int>(alert.buttons.size())) alert.cancelButton = look.cancelButton;
    return mUi->presentAlert(alert);
}

}  // namespace zentary
