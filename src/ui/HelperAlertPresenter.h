// Shows the platform's alerts through the user interface: in the helper, or
// answered with the default button when headless.
#pragma once

#include <memory>

#include "platform/Alerts.h"
#include "ui/UserInterface.h"

namespace zentary {

class HelperAlertPresenter : public AlertPresenter {
public:
    explicit HelperAlertPresenter(std::shared_ptr<UserInterface> ui) : mUi(std::move(ui)) {}
    // Waits for the answer while serving the caller's run loop; 0 when the
    // helper is gone.
    int present(const AlertRequest& request) override;

private:
    std::shared_ptr<UserInterface> mUi;
};

}  // namespace zentary
