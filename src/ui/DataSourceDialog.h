// The settings dialog's controller: shows the window for the ScanSettings
// model and turns Scan and Cancel into calls on the engine. There is never
// more than one.
#pragma once

#include <functional>
#include <memory>

#include "ui/DialogStrings.h"
#include "ui/ScanSettings.h"
#include "ui/UserInterface.h"

namespace zentary {

// The engine's two operations behind the buttons.
struct DataSourceDialogEngine {
    std::function<void()> startScanning;  // startScanning: with null
    std::function<void()> requestClose;
};

class DataSourceDialog {
public:
    // The dialog, on screen; null when one exists already or the window
    // cannot be shown. Without a settings model the window is shown empty.
    static std::unique_ptr<DataSourceDialog> initWithDataSourceEngine(UserInterface& ui, DataSourceDialogEngine engine,
                                                                      const UiBundle* bundle,
                                                                      ScanSettingsStore capabilities);
    // Closes the window and makes room for the next dialog.
    ~DataSourceDialog();
    DataSourceDialog(const DataSourceDialog&) = delete;
    DataSourceDialog& operator=(const DataSourceDialog&) = delete;

    void handleScan();
    void handleCancel();

    ScanSettings* scanSettings() { return mScanSettings.get(); }
    DialogStrings* dialogStrings() { return mDialogStrings.get(); }

private:
    DataSourceDialog(UserInterface& ui, DataSourceDialogEngine engine);
    void awakeFromNib(const UiBundle* bundle, ScanSettingsStore capabilities);
    UiMessage windowMessage(const char* type) const;
    void action(const UiMessage& message);

    UserInterface& mUi;
    DataSourceDialogEngine mEngine;
    std::unique_ptr<ScanSettings> mScanSettings;
    std::unique_ptr<DialogStrings> mDialogStrings;
    Observable::Token mObserver = 0;
    bool mShown = false;
};

}  // namespace zentary
