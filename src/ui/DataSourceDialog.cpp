#include "ui/DataSourceDialog.h"

#include <mutex>

namespace zentary {

namespace {

std::mutex sDialogLock;
DataSourceDialog* gDialog = nullptr;
bool sDialogComing = false;  // one is being made: the place is taken

}  // namespace

DataSourceDialog::DataSourceDialog(UserInterface& ui, DataSourceDialogEngine engine)
    : mUi(ui), mEngine(std::move(engine))
{
}

std::unique_ptr<DataSourceDialog> DataSourceDialog::initWithDataSourceEngine(UserInterface& ui,
                                                                             DataSourceDialogEngine engine,
                                                                             const UiBundle* bundle,
                                                                             ScanSettingsStore capabilities)
{
    {
        // The test for an existing dialog and taking its place are one step.
        std::lock_guard<std::mutex> guard(sDialogLock);
        if (gDialog || sDialogComing) return nullptr;
        sDialogComing = true;
    }
    auto giveBackPlace = [](DataSourceDialog* made) {
        std::lock_guard<std::mutex> guard(sDialogLock);
        sDialogComing = false;
        gDialog = made;
    };
    std::unique_ptr<DataSourceDialog> dialog(new DataSourceDialog(ui, std::move(engine)));
    dialog->awakeFromNib(bundle, std::move(capabilities));
    DataSourceDialog* raw = dialog.get();
    ui.setActionHandler("dialog", [raw](const UiMessage& message) { raw->action(message); });
    // A helper that is given up leaves the user nothing to press: take it as
    // Cancel, so the client is asked to close us rather than wait forever.
    ui.setFailureHandler("dialog", [raw] { raw->handleCancel(); });
    if (!ui.send(dialog->windowMessage("dialog.show"))) {
        giveBackPlace(nullptr);
        return nullptr;
    }
    dialog->mShown = true;
    ScanSettings* settings = dialog->mScanSettings.get();
    ui.logEvent(UiMessage("dialog.shown")
                    .set("imageType", settings ? settings->imageTypeSelectionValue() : "")
                    .set("resolution", settings ? settings->resolutionSelectionValue() : ""));
    giveBackPlace(raw);
    return dialog;
}

void DataSourceDialog::awakeFromNib(const UiBundle* bundle, ScanSettingsStore capabilities)
{
    mDialogStrings = DialogStrings::init(bundle);
    mScanSettings = ScanSettings::initWithCapabilities(bundle, std::move(capabilities));
    if (!mScanSettings) return;
    // Every change of the model, the user's own included, goes back to the
    // window, so that what is drawn is always what the model holds.
    mObserver = mScanSettings->addObserver([this](std::string_view) { mUi.send(windowMessage("dialog.update")); });
}

DataSourceDialog::~DataSourceDialog()
{
    if (mScanSettings) mScanSettings->removeObserver(mObserver);
    mUi.removeActionHandler("dialog");
    if (mShown) {
        mUi.send(UiMessage("dialog.close"));
        mUi.logEvent(UiMessage("dialog.closed"));
    }
    std::lock_guard<std::mutex> guard(sDialogLock);
    if (gDialog == this) gDialog = nullptr;
}

UiMessage DataSourceDialog::windowMessage(const char* type) const
{
    UiMessage message(type);
    std::vector<std::string> names, disabled, keys, texts;
    if (mScanSettings) {
        for (const ScanSettings::ImageType& imageType : mScanSettings->imageTypes()) {
            names.push_back(imageType.displayName);
            if (!imageType.enabled) disabled.push_back(imageType.displayName);
        }
    }
    if (mDialogStrings) {
        for (const auto& [key, text] : mDialogStrings->localizedStrings()) {
            keys.push_back(key);
            texts.push_back(text);
        }
    }
    message.set("imageTypes", names)
        .set("disabledImageTypes", disabled)
        .set("imageType", mScanSettings ? mScanSettings->imageTypeSelectionValue() : "")
        .set("resolutions", mScanSettings ? mScanSettings->resolutionValues() : std::vector<std::string>())
        .set("resolution", mScanSettings ? mScanSettings->resolutionSelectionValue() : "")
        .set("labelKeys", keys)
        .set("labelTexts", texts);
    return message;
}

void DataSourceDialog::action(const UiMessage& message)
{
    std::string type = message.type();
    std::optional<std::string> value = message.string("value");
    if (type == "dialog.scan") {
        handleScan();
    } else if (type == "dialog.cancel") {
        handleCancel();
    } else if (type == "dialog.imageType" && value && mScanSettings) {
        mUi.logEvent(UiMessage("dialog.imageType").set("value", *value));
        mScanSettings->setImageTypeSelectionValue(*value);
    } else if (type == "dialog.resolution" && value && mScanSettings) {
        mUi.logEvent(UiMessage("dialog.resolution").set("value", *value));
        mScanSettings->setResolutionSelectionValue(*value);
    }
}

void DataSourceDialog::handleScan()
{
    mUi.logEvent(UiMessage("dialog.scan"));
    // The engine may release us from inside this call: touch nothing after.
    if (mEngine.startScanning) mEngine.startScanning();
}

void DataSourceDialog::handleCancel()
{
    mUi.logEvent(UiMessage("dialog.cancel"));
    if (mEngine.requestClose) mEngine.requestClose();
}

}  // namespace zentary
