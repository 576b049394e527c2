// The settings dialog and the progress window as the engine drives them.
//
// The windows are drawn by the zentary-ui helper process, or by nobody when
// there is no display (ZENTARY_UI=headless; the dialog then answers at once
// as a user pressing Scan would, headless-cancel as one pressing Cancel).
// Every event goes to ZENTARY_UI_LOG either way.
#include "capabilities/Capabilities.h"
#include "ds/DSBundle.h"
#include "ds/DSPreferences.h"
#include "ds/DataSourceEngine.h"
#include "platform/Bundle.h"
#include "scanlib/ScanDevice.h"
#include "ui/DataSourceDialog.h"
#include "ui/HelperAlertPresenter.h"
#include "ui/ScanProgressDialog.h"
#include "ui/UserInterface.h"

namespace zentary {

void DataSourceEngine::startUserInterface()
{
    std::optional<Bundle> bundle = Bundle::withIdentifier(kBundleIdentifier);
    if (bundle) {
        mUiBundle = std::make_unique<UiBundle>();
        mUiBundle->resourcePath = bundle->resourcePath("").string();
        mUiBundle->localizedString = [bundle = *bundle](const std::string& key) {
            return bundle.localizedString(key);
        };
    }
    UiHelper::Options options = UiHelper::Options::forResources(mUiBundle ? mUiBundle->resourcePath : "");
    mUi = std::make_shared<UserInterface>(*mLoop, UserInterface::modeFromEnvironment(), options);
    // Alerts go where the windows go for as long as this engine lives.
    if (mUi->mode() == UserInterface::Mode::Helper)
        alerts::setPresenter(std::make_shared<HelperAlertPresenter>(mUi, kName));
}

void DataSourceEngine::stopUserInterface()
{
    mDialog.reset();
    mProgressDialog.reset();
    if (mUi && mUi->mode() == UserInterface::Mode::Helper) alerts::setPresenter(nullptr);
    mUi.reset();
}

namespace {

// The dialog's model sees a value as its numbers: one, or a FIX32's two.
std::optional<SettingValue> toSetting(const std::optional<CapabilityValue>& value)
{
    if (!value) return std::nullopt;
    if (value->isNumber()) return SettingValue{value->number()};
    SettingValue numbers;
    for (const CapabilityValue& item : value->items()) {
        if (!item.isNumber()) return std::nullopt;
        numbers.push_back(item.number());
    }
    return numbers;
}

CapabilityValue fromSetting(const SettingValue& value)
{
    if (value.size() == 1) return CapabilityValue(value[0]);
    std::vector<CapabilityValue> items(value.begin(), value.end());
    return CapabilityValue::list(std::move(items));
}

}  // namespace

void DataSourceEngine::showDialog()
{
    if (!mUi || mDialog) return;
    ScanSettingsStore store;
    Capabilities* caps = mCapabilities.get();
    store.allValidValues = [caps](std::uint16_t cap) -> std::optional<std::vector<SettingValue>> {
        std::optional<std::vector<CapabilityValue>> values = caps->allValidValues(cap);
        if (!values) return std::nullopt;
        std::vector<SettingValue> settings;
        for (const CapabilityValue& value : *values)
            if (std::optional<SettingValue> setting = toSetting(value)) settings.push_back(*setting);
        return settings;
    };
    store.currentValue = [caps](std::uint16_t cap) { return toSetting(caps->currentValue(cap)); };
    store.setCurrentValue = [caps](std::uint16_t cap, const SettingValue& value) {
        caps->setCurrentValue(cap, fromSetting(value));
    };
    store.setImageTypePreference = &DSPreferences::setImageTypePreference;
    store.setResolutionPreference = &DSPreferences::setResolutionPreference;
    // What the user does runs as the engine's own next step, never nested
    // inside an operation that is waiting.
    DataSourceDialogEngine actions{
        [this] { schedule(std::chrono::milliseconds::zero(), [this] { startScanning(std::nullopt); }); },
        [this] { schedule(std::chrono::milliseconds::zero(), [this] { requestClose(); }); }};
    mDialog = DataSourceDialog::initWithDataSourceEngine(*mUi, std::move(actions), mUiBundle.get(), std::move(store));
}

void DataSourceEngine::releaseDialog()
{
    mDialog.reset();
}

void DataSourceEngine::showProgress()
{
    if (!mUi || mProgressDialog) return;
    ScanDevice* scanner = mScanner.get();
    ScanProgressEngine actions{[scanner] { return scanner->scanProgress(); },
                               [this] { schedule(std::chrono::milliseconds::zero(), [this] { stopScanning(); }); }};
    mProgressDialog = ScanProgressDialog::initWithDataSourceEngine(*mUi, std::move(actions), mUiBundle.get());
}

void DataSourceEngine::closeProgress()
{
    if (!mProgressDialog) return;
    mProgressDialog->close();
    mProgressDialog.reset();
}

void DataSourceEngine::progressScanDidComplete()
{
    if (mProgressDialog) mProgressDialog->scanDidComplete();
}

}  // namespace zentary
