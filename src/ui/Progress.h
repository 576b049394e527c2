// The model behind the progress window: how far the scan is, whether it is
// still scanning, and the window's translated texts with the current message.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "ui/Observable.h"
#include "ui/UiBundle.h"

namespace zentary {

inline constexpr const char* kTitleKey = "title";
inline constexpr const char* kCancelKey = "cancel";
inline constexpr const char* kScanningKey = "scanning";
inline constexpr const char* kTransferringKey = "transferring";
// The window says so once Cancel was taken; the model itself keeps its message.
inline constexpr const char* kCancellingKey = "cancelling";
inline constexpr const char* kProgressMessageKey = "progressMessage";
inline constexpr const char* kProgressKey = "progress";
inline constexpr const char* kIsScanningKey = "isScanning";
inline constexpr const char* kTitle = "Tarvell Scan Progress";
inline constexpr const char* kCancel = "Cancel";
inline constexpr const char* kScanning = "Scanning...";
inline constexpr const char* kTransferring = "Transferring image...";
inline constexpr const char* kCancelling = "Cancelling...";

class Progress : public Observable {
public:
    // Null when the bundle cannot be found. Starts at 0.0, scanning.
    static std::unique_ptr<Progress> init(const UiBundle* bundle);

    const std::map<std::string, std::string>& localizedStrings() const { return mLocalizedStrings; }
    float progress() const { return mProgress; }
    // Stored as given: the scanner's fraction is shown, not judged.
    void setProgress(float progress);
    bool isScanning() const { return mScanning; }
    // Also tells observers of "progressMessage", which follows the flag.
    void setIsScanning(bool scanning);
    std::string progressMessage() const;

private:
    Progress() = default;
    void buildProgressMessage();

    std::map<std::string, std::string> mLocalizedStrings;
    float mProgress = 0.0f;
    bool mScanning = false;
};

}  // namespace zentary
