#include "emulator/EmulatorOptions.h"

#include <charconv>

namespace zentary {

namespace {

struct FaultName {
    std::string_view name;
    EmulatorFault kind;
    std::uint32_t defaultArgument;
};
constexpr FaultName sFaultNames[] = {
    {"lock-refused", EmulatorFault::LockRefused, 0},     {"not-ready", EmulatorFault::NotReady, 1},
    {"bad-signature", EmulatorFault::BadSignature, 0},   {"settings-length", EmulatorFault::SettingsLength, 120},
    {"short-data", EmulatorFault::ShortData, 0},         {"malformed-data", EmulatorFault::MalformedData, 0},
    {"stall", EmulatorFault::Stall, 0},                  {"timeout", EmulatorFault::Timeout, 0},
    {"disconnect", EmulatorFault::Disconnect, 0},        {"no-image-end", EmulatorFault::NoImageEnd, 0},
};

bool parseNumber(std::string_view text, std::uint32_t* value)
{
    if (text.empty()) return false;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

const char* emulatorOptionsHelp()
{
    return "ZENTARY_SCANNER selects the scanner:\n"
           "  (unset)              the real scanner over USB\n"
           "  emulator             the built-in scanner emulator, no USB\n"
           "  emulator:OPT,OPT,... the emulator with options:\n"
           "    mbps=N             limit the emulator to N megabytes (10^6 bytes) per second\n"
           "                       (40 is about what USB 2.0 delivers); default unlimited\n"
           "    rows=N             image rows per data packet; default: as many as fit in 1 MiB\n"
           "    packet=N           bulk-in max packet size in bytes, 8..1024; default 512\n"
           "    serial=TEXT        the device's serial number; default ZQ305EMU0001\n"
           "    lockfile=PATH      the file PATH exists while the scanner is reserved\n"
           "    image=PATH         a PNG, JPEG or TIFF on the glass instead of the test chart,\n"
           "                       fitted to the 8.5 x 11.7 in glass from its top-left corner\n"
           "    fault=NAME[@N]     inject a fault (the option may be repeated):\n"
           "      lock-refused       the scanner refuses to be reserved\n"
           "      not-ready@N        the scanner is not ready for the first N polls (default 1)\n"
           "      bad-signature@ROW  the data packet holding image row ROW has a wrong signature\n"
           "      settings-length@N  the settings reply carries N bytes instead of 100 (default 120)\n"
           "      short-data@ROW     the data packet holding row ROW ends after half its pixels\n"
           "      malformed-data@ROW the data packet holding row ROW claims a width above its pitch\n"
           "      stall@ROW          the bulk-in pipe stalls at row ROW\n"
           "      timeout@ROW        the scanner stops sending at row ROW (reads time out at once)\n"
           "      disconnect@ROW     the scanner is unplugged at row ROW\n"
           "      no-image-end       the scan ends without its image-end packet\n"
           "    ROW defaults to 0, the first data packet.\n"
           "  Example: ZENTARY_SCANNER=emulator:mbps=40,fault=disconnect@120\n";
}

bool parseEmulatorOptions(std::string_view text, EmulatorOptions* options, std::string* error)
{
    *options = EmulatorOptions{};
    while (!text.empty()) {
        auto comma = text.find(',');
        std::string_view item = text.substr(0, comma);
        text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
        auto equals = item.find('=');
        if (equals == std::string_view::npos) {
            *error = "option without a value: " + std::string(item);
            return false;
        }
        std::string_view key = item.substr(0, equals), value = item.substr(equals + 1);
        std::uint32_t number = 0;
        if (key == "mbps") {
            if (!parseNumber(value, &number) || number == 0) {
                *error = "mbps needs a positive whole number";
                return false;
            }
            options->megabytesPerSecond = number;
        } else if (key == "rows") {
            if (!parseNumber(value, &number) || number == 0) {
                *error = "rows needs a positive whole number";
                return false;
            }
            options->rowsPerPacket = number;
        } else if (key == "packet") {
            if (!parseNumber(value, &number) || number < 8 || number > 1024) {
                *error = "packet needs a size from 8 to 1024";
                return false;
            }
            options->maxPacketSize = std::uint16_t(number);
        } else if (key == "serial") {
            options->serialNumber = std::string(value);
        } else if (key == "lockfile") {
            if (value.empty()) {
                *error = "lockfile needs a path";
                return false;
            }
            options->lockFile = std::string(value);
        } else if (key == "image") {
            if (value.empty()) {
                *error = "image needs a path";
                return false;
            }
            options->imagePath = std::string(value);
        } else if (key == "fault") {
            auto at = value.find('@');
            std::string_view name = value.substr(0, at);
            const FaultName* found = nullptr;
            for (const auto& candidate : sFaultNames)
                if (candidate.name == name) found = &candidate;
            if (!found) {
                *error = "unknown fault: " + std::string(name);
                return false;
            }
            number = found->defaultArgument;
            if (at != std::string_view::npos && !parseNumber(value.substr(at + 1), &number)) {
                *error = "fault argument must be a whole number: " + std::string(value);
                return false;
            }
            options->faults.push_back({found->kind, number});
        } else {
            *error = "unknown option: " + std::string(key);
            return false;
        }
    }
    return true;
}

}  // namespace zentary
