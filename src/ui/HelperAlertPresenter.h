// Shows the platform's alerts through the user interface: in the helper, or
// answered with the default button when headless.
#pragma once

#include <memory>
#include <string>

#include "platform/Alerts.h"
#include "ui/UserInterface.h"

namespace zentary {

class HelperAlertPresenter : public AlertPresenter {
public:
    // `title` names every alert window: the product's name.
    HelperAlertPresenter(std::shared_ptr<UserInterface> ui, std::string title)
        : mUi(std::move(ui)), mTitle(std::move(title))
    {
    }
    // Waits for the answer while serving the caller's run loop; 0 when the
    // helper is gone.
    int present(const AlertRequest& request) override;

private:
    std::shared_ptr<UserInterface> mUi;
    std::string mTitle;
};

}  // namespace zentary
