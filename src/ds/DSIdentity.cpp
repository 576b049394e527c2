#include "ds/DSIdentity.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "ds/DSBundle.h"
#include "platform/Bundle.h"

namespace zentary {

using namespace twain;

namespace {

// A version component read the lenient way: optional blanks and sign, then
// digits; 0 when there are none.
TW_UINT16 integerValue(const std::string& text)
{
    const char* p = text.c_str();
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    return static_cast<TW_UINT16>(std::strtoll(p, nullptr, 10));
}

}  // namespace

void copyIdentityString(char (&field)[34], const std::string& text)
{
    std::size_t length = std::min(text.size(), sizeof(field) - 1);
    std::memset(field, 0, sizeof(field));
    std::memcpy(field, text.data(), length);
}

void fillIdentity(TW_IDENTITY& identity)
{
    std::memset(&identity, 0, sizeof(identity));
    std::optional<std::string> shortVersion, build;
    if (std::optional<Bundle> bundle = Bundle::withIdentifier(kBundleIdentifier)) {
        shortVersion = bundle->infoString("CFBundleShortVersionString");
        build = bundle->infoString("CFBundleVersion");
    }
    std::string info = kVersionInfo;
    if (shortVersion && build) {
        std::size_t dot = shortVersion->find('.');
        if (dot != std::string::npos) {
            identity.Version.MajorNum = integerValue(shortVersion->substr(0, dot));
            std::string rest = shortVersion->substr(dot + 1);
            identity.Version.MinorNum = integerValue(rest.substr(0, rest.find('.')));
        }
        info = *shortVersion + " (" + *build + ")";
    }
    identity.Version.Language = TWLG_USA;
    identity.Version.Country = TWCY_USA;
    copyIdentityString(identity.Version.Info, info);
    identity.ProtocolMajor = 1;
    identity.ProtocolMinor = 9;
    identity.SupportedGroups = DG_CONTROL | DG_IMAGE | DF_DS2;
    copyIdentityString(identity.Manufacturer, kManufacturer);
    copyIdentityString(identity.ProductFamily, kFamily);
    copyIdentityString(identity.ProductName, kName);
}

}  // namespace zentary
