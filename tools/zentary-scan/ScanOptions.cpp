#include "ScanOptions.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <vector>

#include "emulator/EmulatorOptions.h"

namespace zentary {

namespace {

std::string lower(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return std::tolower(c); });
    return out;
}

bool endsWith(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::optional<double> number(std::string_view text)
{
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return std::nullopt;
    return value;
}

}  // namespace

std::optional<OutputFormat> formatForPath(std::string_view path)
{
    std::string name = lower(path);
    if (endsWith(name, ".tif") || endsWith(name, ".tiff")) return OutputFormat::Tiff;
    if (endsWith(name, ".jpg") || endsWith(name, ".jpeg")) return OutputFormat::Jpeg;
    if (endsWith(name, ".pict") || endsWith(name, ".pct")) return OutputFormat::Pict;
    return std::nullopt;
}

const char* formatName(OutputFormat format)
{
    switch (format) {
    case OutputFormat::Tiff: return "TIFF";
    case OutputFormat::Jpeg: return "JPEG";
    case OutputFormat::Pict: return "PICT";
    }
    return "?";
}

bool parseArea(std::string_view text, ScanArea* area, std::string* error)
{
    std::string name = lower(text);
    if (name == "letter") {
        *area = ScanArea{0, 0, 8.5, 11};
        return true;
    }
    if (name == "a4") {
        *area = ScanArea{0, 0, 210 / 25.4, 297 / 25.4};
        return true;
    }
    double scale = 1;
    std::string_view body = name;
    if (endsWith(body, "mm")) {
        scale = 1 / 25.4;
        body.remove_suffix(2);
    } else if (endsWith(body, "in")) {
        body.remove_suffix(2);
    }
    std::vector<double> values;
    while (true) {
        std::size_t comma = body.find(',');
        std::optional<double> value = number(body.substr(0, comma));
        if (!value) break;
        values.push_back(*value * scale);
        if (comma == std::string_view::npos) break;
        body.remove_prefix(comma + 1);
    }
    if (values.size() != 4) {
        *error = "--area: expected letter, a4 or LEFT,TOP,WIDTH,HEIGHT[in|mm], got '" + std::string(text) + "'";
        return false;
    }
    if (values[0] < 0 || values[1] < 0 || values[2] <= 0 || values[3] <= 0) {
        *error = "--area: the frame must start on the glass and have a positive width and height";
        return false;
    }
    *area = ScanArea{values[0], values[1], values[2], values[3]};
    return true;
}

bool parseDevice(std::string_view text, DeviceChoice* device, std::string* error)
{
    if (text == "auto") {
        *device = DeviceChoice{DeviceChoice::Kind::Auto, {}};
        return true;
    }
    if (text == "usb") {
        *device = DeviceChoice{DeviceChoice::Kind::Usb, {}};
        return true;
    }
    if (text == "emulator" || text.starts_with("emulator:")) {
        std::string options(text.size() > 9 ? text.substr(9) : std::string_view());
        EmulatorOptions parsed;
        std::string reason;
        if (!options.empty() && !parseEmulatorOptions(options, &parsed, &reason)) {
            *error = "--device: " + reason;
            return false;
        }
        *device = DeviceChoice{DeviceChoice::Kind::Emulator, options};
        return true;
    }
    *error = "--device: expected auto, usb, emulator or emulator:OPTIONS, got '" + std::string(text) + "'";
    return false;
}

}  // namespace zentary
