#include "ds/DSAlerts.h"

#include <optional>
#include <string>

#include "ds/DSBundle.h"
#include "platform/Alerts.h"
#include "platform/Bundle.h"

namespace zentary {

namespace {

constexpr const char* kInfo11 =
    "This configuration is not supported by the scanner. Close the scanner window and enable the \"Use TWAIN "
    "software whenever possible\" option in the preferences.";
constexpr const char* kInfo12 =
    "This configuration is not supported by the scanner. Close the scanner window and enable the \"Use TWAIN "
    "software\" option for this scanner in the \"Image Capture Devices\" dialog displayed by selecting the "
    "\"Browse Devices...\" menu item from the \"Devices\" menu.";

// The English texts double as the keys of the string table.
constexpr DSAlerts::Message sMessages[DSAlerts::kMessageCount] = {
    {nullptr, nullptr, {nullptr, nullptr, nullptr}},
    {"An unexpected error has occurred.", nullptr, {"Ok", nullptr, nullptr}},
    {"No scanners are available.", nullptr, {"Ok", nullptr, nullptr}},
    {"Unable to connect to device.", nullptr, {"Ok", nullptr, nullptr}},
    {"The scanner is not available.", nullptr, {"Ok", nullptr, nullptr}},
    {"The current image has unapplied changes, what would you like to do?", nullptr, {"Apply", "Cancel", "Discard"}},
    {"All images will be discarded!", nullptr, {"Ok", "Cancel", nullptr}},
    {"There is not enough available disk space for this scan.", nullptr, {"Ok", nullptr, nullptr}},
    {"Could not acquire the scanned image", "Please scan again at a lower resolution.", {"Ok", nullptr, nullptr}},
    {"The image is too big.", "Try a lower resolution or smaller area.", {"Ok", nullptr, nullptr}},
    {"The image is too big.",
     "The image is too large to use native transfer. Use buffered memory transfer instead.",
     {"Ok", nullptr, nullptr}},
    {"The configuration is not supported.", kInfo11, {"Ok", nullptr, nullptr}},
    {"The configuration is not supported.", kInfo12, {"Ok", nullptr, nullptr}},
};

// Builds the request with every present text translated; with
// `absentAsEmpty` an absent text is looked up too and becomes "".
std::optional<AlertRequest> makeRequest(std::int32_t number, bool systemModal)
{
    const DSAlerts::Message* row = DSAlerts::message(number);
    if (!row) return std::nullopt;
    std::optional<Bundle> bundle = Bundle::withIdentifier(kBundleIdentifier);
    if (!bundle) return std::nullopt;
    auto translate = [&](const char* text) { return text ? bundle->localizedString(text) : std::string(); };
    AlertRequest request;
    request.row = number;
    request.systemModal = systemModal;
    request.message = translate(row->message);
    request.informative = translate(row->informative);
    for (const char* button : row->buttons) {
        if (button)
            request.buttons.push_back(translate(button));
        else if (systemModal)
            request.buttons.emplace_back();  // the system alert takes all three titles
    }
    if (systemModal)  // an empty title means "no such button" there
        while (!request.buttons.empty() && request.buttons.back().empty()) request.buttons.pop_back();
    return request;
}

}  // namespace

const DSAlerts::Message* DSAlerts::message(std::int32_t number)
{
    if (number < 1 || number >= kMessageCount) return nullptr;
    return &sMessages[number];
}

std::int32_t DSAlerts::displayMessage(std::int32_t number)
{
    std::optional<AlertRequest> request = makeRequest(number, false);
    if (!request) return 0;
    return alerts::show(*request);
}

std::int32_t DSAlerts::displaySystemModalMessage(std::int32_t number)
{
    std::optional<AlertRequest> request = makeRequest(number, true);
    if (!request) return 0;
    int answer = alerts::show(*request);
    // The system alert has no "nothing shown": a failure is the default button.
    return answer >= 1000 && answer <= 1002 ? answer : 1000;
}

}  // namespace zentary
