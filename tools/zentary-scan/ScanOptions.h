// What the user asked zentary-scan for, and the parsing of the option values
// that CLI11 cannot check by itself (output format, scan frame, device).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zentary {

// Exit codes, documented in --help: scripts tell these apart.
enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,    // the scan or the transfer failed in the data source, or writing failed
    kExitUsage = 2,      // bad options or output path; nothing was scanned
    kExitDevice = 3,     // no scanner, or the scanner failed during the scan
    kExitCancelled = 130 // Ctrl-C, or Cancel in the dialog (130 as a shell reports SIGINT)
};

enum class OutputFormat { Tiff, Jpeg, Pict };
enum class ColorMode { Color, Gray };
enum class Mechanism { Native, Memory, File };

// The scan frame in inches from the glass's top-left corner.
struct ScanArea {
    double left = 0;
    double top = 0;
    double width = 8.5;
    double height = 11;
    bool operator==(const ScanArea&) const = default;
};

struct DeviceChoice {
    enum class Kind { Auto, Usb, Emulator } kind = Kind::Auto;
    std::string emulatorOptions;  // what follows "emulator:"
};

struct ScanOptions {
    std::string output;
    OutputFormat format = OutputFormat::Tiff;
    ColorMode mode = ColorMode::Color;
    int resolution = 300;
    ScanArea area;
    // File by default: the source writes the file itself straight from its
    // scan, the quickest road and the one with the least memory.
    Mechanism mechanism = Mechanism::File;
    bool mechanismChosen = false;  // --xfer given: no falling back to memory
    bool showUI = false;
    DeviceChoice device;
    bool list = false;
    bool json = false;
    bool overwrite = false;
    std::string dsmPath;     // empty: the built-in manager
    std::string sourceName = "Tarvell Zentary Q305 MFP";  // the source to ask an installed manager for
    std::string sourcePath;  // empty: found beside the tool or in the usual places
};

// From the output file's extension (case-insensitive); nothing for others.
std::optional<OutputFormat> formatForPath(std::string_view path);
const char* formatName(OutputFormat format);

// "letter", "a4", or "LEFT,TOP,WIDTH,HEIGHT" with an optional unit suffix
// "in" (default) or "mm". False with a one-line reason otherwise.
bool parseArea(std::string_view text, ScanArea* area, std::string* error);
// "auto", "usb", "emulator" or "emulator:OPTIONS" (checked by the emulator's parser).
bool parseDevice(std::string_view text, DeviceChoice* device, std::string* error);

}  // namespace zentary
