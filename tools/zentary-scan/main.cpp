// zentary-scan: scans from the Zentary Q305 (or its built-in emulator) to a
// TIFF, JPEG or PICT file through the TWAIN data source, exactly as any
// TWAIN client would drive it.
#include <libusb.h>
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "DataSourceManager.h"
#include "Feedback.h"
#include "InstalledManager.h"
#include "OcrPdf.h"
#include "ScanOptions.h"
#include "ScanSession.h"
#include "StopSignals.h"
#include "WorkFolder.h"
#include "emulator/EmulatorOptions.h"

namespace zentary {
namespace {

namespace fs = std::filesystem;

constexpr std::uint16_t kVendorId = 0x2E5D;
constexpr std::uint16_t kProductId = 0x4A21;

int fail(int code, const std::string& message)
{
    std::fprintf(stderr, "zentary-scan: %s\n", message.c_str());
    return code;
}

// Whether a Q305 is on the bus. A machine without USB access (a container,
// no permission on the bus) simply has none.
bool usbScannerPresent()
{
    libusb_context* context = nullptr;
    if (libusb_init(&context) != 0) return false;
    std::unique_ptr<libusb_context, void (*)(libusb_context*)> owner(context, libusb_exit);
    libusb_device** devices = nullptr;
    ssize_t count = libusb_get_device_list(context, &devices);
    if (count < 0) return false;
    bool found = false;
    for (ssize_t i = 0; i < count && !found; ++i) {
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(devices[i], &descriptor) == 0)
            found = descriptor.idVendor == kVendorId && descriptor.idProduct == kProductId;
    }
    libusb_free_device_list(devices, 1);
    return found;
}

// The .ds beside an installed tool (<prefix>/bin -> <prefix>/lib/twain), in
// the build tree, or in the system's TWAIN folders.
std::string findDataSource()
{
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec).parent_path();
    const fs::path candidates[] = {
        self / "../lib/twain/tarvell/ZentaryQ305.ds",
        self / "../../twain/tarvell/ZentaryQ305.ds",
        "/usr/local/lib/twain/tarvell/ZentaryQ305.ds",
        "/usr/lib/twain/tarvell/ZentaryQ305.ds",
    };
    for (const fs::path& candidate : candidates)
        if (fs::exists(candidate, ec)) return fs::weakly_canonical(candidate, ec).string();
    return {};
}

std::string footer()
{
    return std::string(R"(
OUTPUT
  The format follows the extension: .tif/.tiff (TIFF), .jpg/.jpeg (JPEG),
  .pict/.pct (PICT), .png (PNG), .pdf (PDF). The file is written under a
  temporary name and moved into place only when complete: a failed or
  cancelled scan leaves nothing.
  An existing file is kept unless --overwrite is given. On success one line
  on stdout gives the file, its size in pixels, resolution, mode and bytes.

DOCUMENTS
  --pages N scans N pages, --batch scans until you answer q. Before each page
  after the first the tool asks on the terminal ("Place page 2 on the glass
  and press Enter, or q to finish"); without a terminal it needs --pages and
  scans without asking. A PDF holds every page, a TIFF becomes one multi-page
  TIFF; other formats write a file a page from a pattern with one number
  conversion (page-%03d.png). PDF pages have the scan's size; gray pages are
  compressed losslessly, colour pages as JPEG (--quality, default 85).
  The tool writes documents itself from memory transfers unless --xfer says
  otherwise (a file transfer then hands over each page as a TIFF).
  --ocr LANG recognises the text of each page with Tesseract (language data
  from Debian's tesseract-ocr-LANG) and writes a searchable PDF, the words
  invisible over the picture; a page is recognised while the next is scanned.
  If a page fails or Ctrl-C stops the scan, nothing is written unless
  --keep-partial keeps the pages scanned before.

DEVICE
  auto      the Zentary Q305 on USB when one is connected, otherwise the
            built-in emulator (with a notice on stderr)
  usb       the scanner on USB (VID 0x2E5D, PID 0x4A21); an error without one
  emulator[:OPTIONS]
            the built-in emulated scanner, whose glass holds a test chart.

)") + emulatorOptionsHelp() +
           R"(

EXIT STATUS
  0    the image (or every page of the document) was written
  1    the scan or the transfer failed in the data source, or writing failed
  2    usage error: bad option, resolution not offered, output path not
       writable or already there, --ocr without .pdf or without its language
       data, --batch without a terminal, a bad page pattern; nothing was scanned
  3    device error: no scanner, the scanner failed during the scan, or
       the TWAIN manager given with --dsm is unusable or lacks the source
  129  stopped by SIGHUP (the terminal went away)
  130  cancelled: Ctrl-C (SIGINT), or Cancel in the dialog
  141  stopped by SIGPIPE (the reader of stdout or stderr went away)
  143  stopped by SIGTERM
  On any of these four signals the scan stops and the tool first removes
  the partial output, the raw scan and its temporary folder, then exits
  with 128 + the signal's number; a second signal does not cut that short.
  A run killed outright (SIGKILL) leaves its temporary folder in TMPDIR;
  the next run removes it.
  A temporary folder (TMPDIR) that is full or cannot be written gives 1 and
  names the folder.
  Errors are one line on stderr naming the TWAIN condition code (TWCC_...)
  and the alert the data source showed.

TWAIN MANAGER
  By default the tool loads the data source itself. With --dsm PATH it goes
  through an installed TWAIN 2 Data Source Manager instead, as any TWAIN
  application does, and asks it for the source named by --source-name.
  Every transfer mechanism and --list work through it; a native transfer
  through a manager must hand over a TIFF (the default), since a manager's
  handle does not tell its size and only a TIFF file says where it ends.

ENVIRONMENT
  ZENTARY_UI      with --ui: unset shows windows when there is a display;
                  "headless" scans at once, "headless-cancel" cancels
  ZENTARY_NATIVE  "pict": native transfers hand over a PICT picture
  ZENTARY_SCANNER the scanner when --device is not given, as for --device
  TMPDIR          where the raw scan is kept during the scan

EXAMPLES
  zentary-scan scan.tiff
  zentary-scan --mode gray --resolution 150 --area 1,1,4,3in --xfer memory page.jpg
  zentary-scan --device emulator:mbps=40,fault=disconnect@120 test.tif
  zentary-scan --list --json
  zentary-scan --mode gray --pages 3 letter.pdf
  zentary-scan --batch --ocr eng --device emulator:image=page.png searchable.pdf
  zentary-scan --dsm /usr/local/lib/libtwaindsm.so --device emulator scan.tif
)";
}

int run(int argc, char** argv)
{
    // Before anything is made that a signal could leave behind.
    catchStopSignals();
    ScanOptions options;
    std::string mode = "color", mechanism = "file", area = "letter", device = "auto";
    CLI::App app("Scan from the Tarvell Zentary Q305 through its TWAIN data source.", "zentary-scan");
    app.get_formatter()->column_width(34);
    app.footer(footer());
    // A later option overrides an earlier one, so scripts can append to a base command.
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("output", options.output,
                   "Output file (.tif/.tiff, .jpg/.jpeg, .pict/.pct, .png, .pdf); for several pages of a "
                   "format other than PDF and TIFF, a pattern such as page-%03d.png");
    app.add_option("-m,--mode", mode, "color or gray (default color)")
        ->check(CLI::IsMember({"color", "colour", "gray", "grey"}));
    app.add_option("-r,--resolution", options.resolution, "Dots per inch, one the scanner offers (default 300)");
    app.add_option("-a,--area", area,
                   "Scan frame: letter (default), a4, or LEFT,TOP,WIDTH,HEIGHT from the glass's top-left "
                   "corner in inches, or with the suffix mm in millimetres");
    app.add_option("-x,--xfer", mechanism, "TWAIN transfer mechanism: file (default), native or memory")
        ->check(CLI::IsMember({"native", "memory", "file"}));
    app.add_flag("--ui", options.showUI, "Show the data source's dialog instead of scanning at once");
    app.add_option("-d,--device", device, "auto (default), usb, emulator or emulator:OPTIONS");
    app.add_flag("--overwrite", options.overwrite, "Replace the output file if it exists");
    app.add_flag("-l,--list", options.list, "Show the source's identity and every capability, then exit");
    app.add_flag("--json", options.json, "With --list: print JSON");
    app.add_option("--source", options.sourcePath, "The data source (.ds) to load (default: the installed one)");
    app.add_option("--dsm", options.dsmPath,
                   "Go through this installed TWAIN manager (e.g. /usr/local/lib/libtwaindsm.so) instead of "
                   "loading the data source directly");
    app.add_option("--source-name", options.sourceName,
                   "With --dsm: the source's product name (default \"Tarvell Zentary Q305 MFP\")");
    app.add_option("--pages", options.pages, "Scan this many pages into one document (default 1)")->type_name("N");
    app.add_flag("--batch", options.batch, "Ask for page after page on the terminal until the answer is q");
    app.add_flag("--keep-partial", options.keepPartial,
                 "Keep the pages scanned before a failure or Ctrl-C (by default nothing is written)");
    app.add_option("--quality", options.quality, "JPEG quality 1-100 for JPEG files and colour PDF pages (default 85)")
        ->type_name("Q");
    app.add_option("--ocr", options.ocrLanguage,
                   "Recognise the text with Tesseract in language LANG (e.g. eng) and write a searchable PDF")
        ->type_name("LANG");
    app.set_version_flag("-V,--version", std::string("zentary-scan ") + ZENTARY_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return fail(kExitUsage, std::string(e.what()) + " (see --help)");
    }

    options.mode = mode == "gray" || mode == "grey" ? ColorMode::Gray : ColorMode::Color;
    options.mechanism = mechanism == "memory" ? Mechanism::Memory
                        : mechanism == "native" ? Mechanism::Native
                                                : Mechanism::File;
    options.mechanismChosen = app.count("--xfer") > 0;
    std::string error;
    // Without --device the scanner is the one ZENTARY_SCANNER names, as for
    // every other program that loads the data source.
    const char* selected = std::getenv("ZENTARY_SCANNER");
    bool fromEnvironment = !app.count("--device") && selected && *selected;
    if (fromEnvironment) device = selected;
    if (!parseArea(area, &options.area, &error)) return fail(kExitUsage, error);
    if (!parseDevice(device, &options.device, &error))
        return fail(kExitUsage, fromEnvironment ? "ZENTARY_SCANNER" + error.substr(error.find(':')) : error);
    if (options.json && !options.list) return fail(kExitUsage, "--json goes with --list");
    if (!options.dsmPath.empty()) {
        if (!options.sourcePath.empty()) return fail(kExitUsage, "--source and --dsm exclude each other");
    } else if (app.count("--source-name")) {
        return fail(kExitUsage, "--source-name goes with --dsm");
    }
    if (!options.list) {
        if (options.output.empty()) return fail(kExitUsage, "no output file given (see --help)");
        std::optional<OutputFormat> format = formatForPath(options.output);
        if (!format)
            return fail(kExitUsage, "cannot tell the format of " + options.output +
                                        ": use .tif, .tiff, .jpg, .jpeg, .pict, .pct, .png or .pdf");
        options.format = *format;
        options.qualityChosen = app.count("--quality") > 0;
        // --batch alone asks until the user stops; with --pages, at most that many.
        if (options.batch && !app.count("--pages")) options.pages = 0;
        if (!checkDocumentOptions(options, isatty(STDIN_FILENO) == 1, &error)) return fail(kExitUsage, error);
        std::error_code ec;
        std::string first = isMultiPageFormat(options.format) ? options.output : pagePath(options.output, 1);
        if (fs::exists(first, ec) && !options.overwrite)
            return fail(kExitUsage, first + " exists (use --overwrite to replace it)");
        if (fs::exists(options.output, ec) && !options.overwrite)
            return fail(kExitUsage, options.output + " exists (use --overwrite to replace it)");
        if (fs::is_directory(options.output, ec)) return fail(kExitUsage, options.output + " is a directory");
        fs::path dir = fs::path(options.output).parent_path();
        if (dir.empty()) dir = ".";
        if (access(dir.c_str(), W_OK) != 0) return fail(kExitUsage, "cannot write to " + dir.string());
    }

    // Tesseract's language data is loaded before the scanner is touched: a
    // missing pack is a usage error, not a lost scan.
    std::unique_ptr<OcrEngine> ocr;
    if (!options.ocrLanguage.empty() && !std::getenv("OMP_THREAD_LIMIT")) {
        // Pages are recognised one behind the scanner on a thread of their
        // own; Tesseract's OpenMP threads on top of that only wait for each
        // other (2.5 times slower on two busy cores). OpenMP reads its limit
        // when it loads, before main: the tool starts itself again with one.
        setenv("OMP_THREAD_LIMIT", "1", 1);
        execv("/proc/self/exe", argv);
    }
    if (!options.ocrLanguage.empty() && !(ocr = OcrEngine::create(options.ocrLanguage, &error)))
        return fail(kExitUsage, error);

    switch (options.device.kind) {
    case DeviceChoice::Kind::Auto:
        if (usbScannerPresent()) {
            unsetenv("ZENTARY_SCANNER");
        } else {
            std::fprintf(stderr, "zentary-scan: no Zentary Q305 on USB; using the built-in emulator\n");
            setenv("ZENTARY_SCANNER", "emulator", 1);
        }
        break;
    case DeviceChoice::Kind::Usb:
        if (!usbScannerPresent())
            return fail(kExitDevice, "no Zentary Q305 on USB (VID 0x2E5D, PID 0x4A21): is it connected and "
                                     "switched on? (--device emulator scans without it)");
        unsetenv("ZENTARY_SCANNER");
        break;
    case DeviceChoice::Kind::Emulator:
        setenv("ZENTARY_SCANNER",
               options.device.emulatorOptions.empty() ? "emulator"
                                                      : ("emulator:" + options.device.emulatorOptions).c_str(),
               1);
        break;
    }

    std::string dsPath;
    if (options.dsmPath.empty()) {
        dsPath = options.sourcePath.empty() ? findDataSource() : options.sourcePath;
        if (dsPath.empty()) return fail(kExitFailure, "cannot find ZentaryQ305.ds (give its path with --source)");
    }
    WorkFolder work;
    if (work.path().empty()) return fail(kExitFailure, work.error());
    std::string uiLog = work.path() + "/ui.log";
    setenv("TMPDIR", work.path().c_str(), 1);
    setenv("ZENTARY_UI_LOG", uiLog.c_str(), 1);
    if (!options.showUI) setenv("ZENTARY_UI", "headless", 1);

    std::unique_ptr<TwainLink> source;
    if (!options.dsmPath.empty()) {
        // The manager loads the source while it lists them: the environment above is set first.
        source = InstalledManager::load(options.dsmPath, options.sourceName, &error);
        if (!source) return fail(kExitDevice, error);
    } else {
        source = DataSourceManager::load(dsPath, &error);
        if (!source) return fail(kExitFailure, "cannot load " + dsPath + ": " + error);
    }
    ProgressReporter progress(isatty(STDERR_FILENO) == 1);
    ScanSession session(*source, options, progress, stopRequested(), work.path(), uiLog);
    session.setOcrEngine(ocr.get());
    SessionResult result = options.list ? session.list() : session.scan();
    progress.finish();
    // A scan that got as far as its file stands; anything else a signal ended.
    if (result.exitCode != kExitOk && stopSignal())
        return fail(128 + stopSignal(), "stopped by " + stopSignalName(stopSignal()));
    if (result.exitCode != kExitOk) return fail(result.exitCode, result.message);
    std::fputs(result.message.c_str(), stdout);
    if (!result.message.empty() && result.message.back() != '\n') std::fputc('\n', stdout);
    return kExitOk;
}

}  // namespace
}  // namespace zentary

int main(int argc, char** argv)
{
    try {
        return zentary::run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zentary-scan: %s\n", e.what());
        return zentary::kExitFailure;
    }
}
