#include "ScanOptions.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <vector>

#include "emulator/EmulatorOptions.h"
#include "emulator/PageImage.h"

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
    if (endsWith(name, ".png")) return OutputFormat::Png;
    if (endsWith(name, ".pdf")) return OutputFormat::Pdf;
    return std::nullopt;
}

const char* formatName(OutputFormat format)
{
    switch (format) {
    case OutputFormat::Tiff: return "TIFF";
    case OutputFormat::Jpeg: return "JPEG";
    case OutputFormat::Pict: return "PICT";
    case OutputFormat::Png: return "PNG";
    case OutputFormat::Pdf: return "PDF";
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

bool isDocument(const ScanOptions& options)
{
    return options.pages != 1 || options.batch || options.format == OutputFormat::Png ||
           options.format == OutputFormat::Pdf || (options.qualityChosen && options.format == OutputFormat::Jpeg);
}

bool isMultiPageFormat(OutputFormat format)
{
    return format == OutputFormat::Pdf || format == OutputFormat::Tiff;
}

namespace {

// Where the one integer conversion of a page pattern starts and ends; a
// negative start for none, and false for anything else printf would take.
bool findConversion(std::string_view pattern, long* start, std::size_t* end)
{
    *start = -1;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%') continue;
        if (i + 1 < pattern.size() && pattern[i + 1] == '%') {
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        if (j < pattern.size() && pattern[j] == '0') ++j;
        std::size_t digits = j;
        while (j < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[j]))) ++j;
        if (j - digits > 2 || j >= pattern.size() || pattern[j] != 'd' || *start >= 0) return false;
        *start = long(i);
        *end = j + 1;
        i = j;
    }
    return true;
}

}  // namespace

bool validPagePattern(std::string_view pattern, std::string* error)
{
    long start = -1;
    std::size_t end = 0;
    if (!findConversion(pattern, &start, &end) || start < 0) {
        *error = "the output '" + std::string(pattern) +
                 "' needs exactly one page number conversion for several pages, e.g. page-%03d.png (%% for a percent sign)";
        return false;
    }
    return true;
}

std::string pagePath(std::string_view pattern, int page)
{
    long start = -1;
    std::size_t end = 0;
    if (!findConversion(pattern, &start, &end) || start < 0) return std::string(pattern);
    std::string out;
    auto unescape = [&out](std::string_view part) {
        for (std::size_t i = 0; i < part.size(); ++i) {
            out += part[i];
            if (part[i] == '%' && i + 1 < part.size() && part[i + 1] == '%') ++i;
        }
    };
    unescape(pattern.substr(0, std::size_t(start)));
    std::string conversion(pattern.substr(std::size_t(start), end - std::size_t(start)));
    char number[32];
    std::snprintf(number, sizeof(number), conversion.c_str(), page);
    out += number;
    unescape(pattern.substr(end));
    return out;
}

bool checkDocumentOptions(const ScanOptions& options, bool stdinIsTerminal, std::string* error)
{
    if (options.pages < 0 || (options.pages == 0 && !options.batch)) {
        *error = "--pages needs a positive number";
        return false;
    }
    if (options.quality < 1 || options.quality > 100) {
        *error = "--quality needs a number from 1 to 100";
        return false;
    }
    if (options.batch && !stdinIsTerminal) {
        *error = "--batch asks before each page and needs a terminal: use --pages N to scan without asking";
        return false;
    }
    if (!options.ocrLanguage.empty() && options.format != OutputFormat::Pdf) {
        *error = "--ocr writes a searchable PDF: give an output ending in .pdf";
        return false;
    }
    for (char c : options.ocrLanguage)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '+') {
            *error = "--ocr: '" + options.ocrLanguage + "' is not a Tesseract language code (such as eng or eng+deu)";
            return false;
        }
    if (options.qualityChosen && options.format != OutputFormat::Jpeg && options.format != OutputFormat::Pdf) {
        *error = "--quality applies to JPEG and PDF output";
        return false;
    }
    bool several = options.pages != 1 || options.batch;
    if (several && !isMultiPageFormat(options.format) && !validPagePattern(options.output, error)) return false;
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
        // The picture is read here once so that a wrong one is a usage error
        // rather than an emulator that does not show up.
        if (!parsed.imagePath.empty() && !PageImage::load(parsed.imagePath, &reason)) {
            *error = "--device: image=" + reason;
            return false;
        }
        *device = DeviceChoice{DeviceChoice::Kind::Emulator, options};
        return true;
    }
    *error = "--device: expected auto, usb, emulator or emulator:OPTIONS, got '" + std::string(text) + "'";
    return false;
}

}  // namespace zentary
