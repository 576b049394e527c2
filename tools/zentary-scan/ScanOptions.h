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

enum class OutputFormat { Tiff, Jpeg, Pict, Png, Pdf };
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
    // Documents: several pages, or a format the tool writes itself.
    int pages = 1;           // --pages; with --batch the most to scan (0: no limit)
    bool batch = false;      // ask before each page after the first until the user says stop
    bool keepPartial = false;
    int quality = 85;        // JPEG files and the colour pages of a PDF
    bool qualityChosen = false;
    std::string ocrLanguage;  // non-empty: a searchable PDF, Tesseract language code(s) such as eng or eng+deu
};

// Whether the tool itself writes the output (PNG, PDF, several pages, a
// chosen JPEG quality, OCR) from images it receives, rather than the data
// source writing a single file.
bool isDocument(const ScanOptions& options);
// Whether the pages go into one file (PDF, TIFF) rather than one file each.
bool isMultiPageFormat(OutputFormat format);
// The checks of the document options that need no scanner: false with one
// line for the user. `stdinIsTerminal` says whether prompts can be answered.
bool checkDocumentOptions(const ScanOptions& options, bool stdinIsTerminal, std::string* error);
// A file name pattern for numbered pages holds exactly one printf-style
// integer conversion (%d, %3d or %03d; %% is a percent sign).
bool validPagePattern(std::string_view pattern, std::string* error);
// The pattern with the page number put in; the name itself when it holds no
// conversion (a single page).
std::string pagePath(std::string_view pattern, int page);

// From the output file's extension (case-insensitive); nothing for others.
std::optional<OutputFormat> formatForPath(std::string_view path);
const char* formatName(OutputFormat format);

// "letter", "a4", or "LEFT,TOP,WIDTH,HEIGHT" with an optional unit suffix
// "in" (default) or "mm". False with a one-line reason otherwise.
bool parseArea(std::string_view text, ScanArea* area, std::string* error);
// "auto", "usb", "emulator" or "emulator:OPTIONS" (checked by the emulator's parser).
bool parseDevice(std::string_view text, DeviceChoice* device, std::string* error);

}  // namespace zentary
