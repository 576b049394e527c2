#include "ui/HelperAlertPresenter.h"

namespace zentary {

int HelperAlertPresenter::present(const AlertRequest& request)
{
    if (!mUi) return 0;
    UiAlert alert;
    alert.row = request.row;
    alert.message = request.message;
    alert.informative = request.informative;
    alert.buttons = request.buttons;
    alert.systemModal = request.systemModal;
    return mUi->presentAlert(alert);
}

}  // namespace zentary
