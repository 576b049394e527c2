#include "ui/Progress.h"

namespace zentary {

std::unique_ptr<Progress> Progress::init(const UiBundle* bundle)
{
    if (!bundle) return nullptr;
    std::unique_ptr<Progress> model(new Progress());
    for (auto [key, text] : {std::pair{kTitleKey, kTitle}, std::pair{kCancelKey, kCancel},
                             std::pair{kScanningKey, kScanning}, std::pair{kTransferringKey, kTransferring},
                             std::pair{kCancellingKey, kCancelling}})
        model->mLocalizedStrings[key] = bundle->localize(text);
    model->mProgress = 0.0f;
    model->setIsScanning(true);
    return model;
}

void Progress::setProgress(float progress)
{
    mProgress = progress;
    notify(kProgressKey);
}

void Progress::setIsScanning(bool scanning)
{
    mScanning = scanning;
    buildProgressMessage();
    notify(kIsScanningKey);
    notify(kProgressMessageKey);
}

std::string Progress::progressMessage() const
{
    auto it = mLocalizedStrings.find(kProgressMessageKey);
    return it == mLocalizedStrings.end() ? std::string() : it->second;
}

void Progress::buildProgressMessage()
{
    auto it = mLocalizedStrings.find(mScanning ? kScanningKey : kTransferringKey);
    if (it != mLocalizedStrings.end()) mLocalizedStrings[kProgressMessageKey] = it->second;
}

}  // namespace zentary
