#include "ScanSession.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>
#include <vector>

#include "CapabilityList.h"
#include "ImageOutput.h"
#include "TwainText.h"
#include "WorkFolder.h"

namespace zentary {

using namespace twain;
using namespace std::chrono_literals;

namespace {

// A scan of the whole glass at 1200 dpi takes minutes on USB 2.0; nothing
// the scanner does legitimately takes longer than this.
constexpr auto kScanTimeout = 15min;

TW_FIX32 toFix32(double value)
{
    double whole = std::floor(value);
    return TW_FIX32{static_cast<TW_INT16>(whole), static_cast<TW_UINT16>(std::lround((value - whole) * 65536) & 0xFFFF)};
}

TW_UINT32 fix32Item(TW_FIX32 fix)
{
    TW_UINT32 item = 0;
    std::memcpy(&item, &fix, sizeof(fix));
    return item;
}

TW_UINT16 setOneValue(TwainLink& source, TW_UINT16 cap, TW_UINT16 itemType, TW_UINT32 item)
{
    // The container goes through the manager's memory functions, as the
    // source expects of every handle it is given.
    TW_HANDLE handle = source.allocate(sizeof(TW_ONEVALUE));
    if (!handle) return TWRC_FAILURE;
    auto* one = static_cast<TW_ONEVALUE*>(source.lock(handle));
    if (!one) {
        source.release(handle);
        return TWRC_FAILURE;
    }
    one->ItemType = itemType;
    one->Item = item;
    source.unlock(handle);
    TW_CAPABILITY capability{cap, TWON_ONEVALUE, handle};
    TW_UINT16 rc = source.call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &capability);
    source.release(handle);
    return rc;
}

std::string describe(const TW_IMAGEINFO& info, OutputFormat format, std::uintmax_t bytes)
{
    char text[160];
    std::snprintf(text, sizeof(text), "%d x %d pixels, %d dpi, %s, %s, %ju bytes", info.ImageWidth,
                  info.ImageLength, info.XResolution.Whole, info.PixelType == TWPT_GRAY ? "gray" : "color",
                  formatName(format), bytes);
    return text;
}

}  // namespace

ScanSession::ScanSession(TwainLink& source, const ScanOptions& options, ProgressReporter& progress,
                         const std::atomic<bool>& interrupted, std::string workDir, std::string uiLog)
    : mSource(source), mOptions(options), mProgress(progress), mInterrupted(interrupted),
      mWorkDir(std::move(workDir)), mUiLog(std::move(uiLog)), mMechanism(options.mechanism),
      mFileFormat(options.format)
{
}

std::string ScanSession::alertText()
{
    UiLogSummary log = readUiLog(mUiLog);
    std::string text;
    for (std::size_t i = mAlertsShown; i < log.alerts.size(); ++i) {
        const AlertSeen& alert = log.alerts[i];
        if (!text.empty()) text += "; ";
        text += "\"" + alert.message + "\"";
        if (!alert.informative.empty()) text += " (" + alert.informative + ")";
    }
    mAlertsShown = log.alerts.size();
    return text;
}

SessionResult ScanSession::failure(int exitCode, const std::string& what)
{
    std::string message = what + ": " + conditionCodeName(mSource.conditionCode());
    std::string alert = alertText();
    if (!alert.empty()) message += "; the scanner said " + alert;
    return {exitCode, message};
}

void ScanSession::windDownToOpen()
{
    if (mTransferReady) {
        TW_PENDINGXFERS pending{};
        mSource.call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending);
        mTransferReady = false;
    }
    if (mEnabled) {
        TW_USERINTERFACE ui{0, 0, nullptr};
        mSource.call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui);
        mEnabled = false;
    }
}

void ScanSession::windDown()
{
    // Each step may legitimately fail (we may not have reached its state);
    // together they bring the source back to closed from anywhere.
    windDownToOpen();
    mSource.close();
}

SessionResult ScanSession::negotiate()
{
    if (setOneValue(mSource, ICAP_PIXELTYPE, TWTY_UINT16, mOptions.mode == ColorMode::Gray ? TWPT_GRAY : TWPT_RGB) !=
        TWRC_SUCCESS)
        return failure(kExitFailure, "the scanner refused the mode");
    TW_FIX32 dpi{static_cast<TW_INT16>(mOptions.resolution), 0};
    if (mOptions.resolution <= 0 || mOptions.resolution > 0x7FFF ||
        setOneValue(mSource, ICAP_XRESOLUTION, TWTY_FIX32, fix32Item(dpi)) != TWRC_SUCCESS) {
        std::string valid = joinValues(capabilityValues(mSource, ICAP_XRESOLUTION).valid, ", ");
        mSource.conditionCode();  // consumed: the message names the valid values instead
        return {kExitUsage, "the scanner does not offer " + std::to_string(mOptions.resolution) + " dpi" +
                                (valid.empty() ? "" : "; valid resolutions: " + valid)};
    }
    // The short file-transfer record holds 255 bytes of path; a longer one
    // goes through memory unless the user asked for file transfer.
    std::string filePath = std::filesystem::absolute(mFileTarget).string();
    if (mMechanism == Mechanism::File && !mOptions.mechanismChosen &&
        filePath.size() >= sizeof(TW_SETUPFILEXFER::FileName))
        mMechanism = Mechanism::Memory;
    TW_UINT16 mechanism = mMechanism == Mechanism::Native   ? TWSX_NATIVE
                          : mMechanism == Mechanism::Memory ? TWSX_MEMORY
                                                                    : TWSX_FILE;
    if (setOneValue(mSource, ICAP_XFERMECH, TWTY_UINT16, mechanism) != TWRC_SUCCESS)
        return failure(kExitFailure, "the scanner refused the transfer mechanism");

    const ScanArea& area = mOptions.area;
    TW_IMAGELAYOUT layout{};
    layout.Frame = {toFix32(area.left), toFix32(area.top), toFix32(area.left + area.width),
                    toFix32(area.top + area.height)};
    layout.DocumentNumber = layout.PageNumber = layout.FrameNumber = 0xFFFFFFFF;
    TW_UINT16 rc = mSource.call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout);
    if (rc == TWRC_CHECKSTATUS) {
        mProgress.finish();
        std::fprintf(stderr, "zentary-scan: the scan frame was cut to the glass (8.5 x 11.7 in)\n");
    } else if (rc != TWRC_SUCCESS) {
        return failure(kExitUsage, "the scanner refused the scan frame");
    }

    if (mMechanism == Mechanism::File) {
        TW_UINT16 format = mFileFormat == OutputFormat::Tiff   ? TWFF_TIFF
                           : mFileFormat == OutputFormat::Jpeg ? TWFF_JFIF
                                                               : TWFF_PICT;
        TW_SETUPFILEXFER setup{};
        if (filePath.size() >= sizeof(setup.FileName))
            return {kExitUsage, "the output path is too long for a file transfer (255 characters at most); "
                                "use --xfer native or memory"};
        std::memcpy(setup.FileName, filePath.c_str(), filePath.size() + 1);
        setup.Format = format;
        if (mSource.call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup) != TWRC_SUCCESS)
            return failure(kExitFailure, std::string("the scanner cannot write ") + formatName(mFileFormat) +
                                             " files to " + filePath);
    }
    return {};
}

namespace {

// The size of the raw scan file at its end, from the frame (rows padded to
// 8 pixels, 4 bytes a colour pixel).
double expectedRawBytes(const ScanOptions& options)
{
    double width = std::ceil(options.area.width * options.resolution / 8) * 8;
    double rows = std::ceil(options.area.height * options.resolution);
    return width * rows * (options.mode == ColorMode::Gray ? 1 : 4) + 32;
}

}  // namespace

double ScanSession::scanFraction() const
{
    // The raw scan file grows as rows arrive.
    double expected = expectedRawBytes(mOptions);
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(mWorkDir, ec))
        if (entry.path().extension() == ".raw") return static_cast<double>(entry.file_size(ec)) / expected;
    return 0;
}

SessionResult ScanSession::waitForTransfer()
{
    mProgress.phase("Scanning");
    auto deadline = std::chrono::steady_clock::now() + kScanTimeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (mInterrupted) return {kExitCancelled, "cancelled"};
        std::optional<TW_UINT16> message = mSource.waitForMessage(100ms);
        if (!message) {
            mProgress.update(std::min(scanFraction(), 0.99));
            continue;
        }
        if (*message == MSG_XFERREADY) {
            mTransferReady = true;
            mProgress.update(1);
            mProgress.finish();
            return {};
        }
        if (*message == MSG_CLOSEDSREQ) {
            mProgress.finish();
            UiLogSummary log = readUiLog(mUiLog);
            if (log.cancelled) return {kExitCancelled, "cancelled in the dialog"};
            // A temporary folder that is full or cannot be written looks like
            // a scanner failure from inside the source; we can tell them apart.
            std::string storage = storageProblem(mWorkDir, static_cast<std::uint64_t>(expectedRawBytes(mOptions)),
                                                 std::filesystem::path(mWorkDir).parent_path().string());
            if (!storage.empty()) return {kExitFailure, storage};
            std::string alert = alertText();
            return {kExitDevice, alert.empty() ? "the scan failed: the scanner stopped sending the image"
                                               : "the scan failed; the scanner said " + alert};
        }
    }
    return {kExitDevice, "the scan failed: no image after " +
                             std::to_string(std::chrono::duration_cast<std::chrono::minutes>(kScanTimeout).count()) +
                             " minutes"};
}

SessionResult ScanSession::transferNative(const TW_IMAGEINFO& info, const std::string& target)
{
    TW_HANDLE handle = nullptr;
    TW_UINT16 rc = mSource.call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle);
    OwnedHandle owned(mSource, handle);
    if (rc != TWRC_XFERDONE) return failure(kExitFailure, "the native transfer failed");
    // Through an installed manager the handle's size is unknown: a TIFF
    // file says how far it reaches; a picture cannot be read that way.
    std::span<const std::uint8_t> bytes =
        owned.bytes([](const ByteReader& read) { return tiffExtent(read, OwnedHandle::kMaxUnsizedBytes); });
    if (bytes.empty())
        return {kExitFailure, "the native transfer handed over no image (through --dsm only a TIFF can be read)"};
    bool isTiff = bytes.size() >= 4 && (std::memcmp(bytes.data(), "II*\0", 4) == 0 ||
                                        std::memcmp(bytes.data(), "MM\0*", 4) == 0);
    if (!isTiff) {
        // A picture (ZENTARY_NATIVE=pict): a PICT file is the picture behind a 512-byte header.
        if (mOptions.format != OutputFormat::Pict)
            return {kExitFailure, "the native transfer handed over a picture; write it to a .pict file"};
        std::vector<std::uint8_t> file(512, 0);
        file.insert(file.end(), bytes.begin(), bytes.end());
        if (!writeBytes(file, target)) return {kExitFailure, "cannot write " + mOptions.output};
        return {};
    }
    if (mOptions.format == OutputFormat::Tiff) {
        if (!writeBytes(bytes, target)) return {kExitFailure, "cannot write " + mOptions.output};
        return {};
    }
    std::string error;
    auto image = decodeTiff(bytes, &error);
    if (!image) return {kExitFailure, error};
    (void)info;
    if (!writeImage(*image, mOptions.format, target)) return {kExitFailure, "cannot write " + mOptions.output};
    return {};
}

SessionResult ScanSession::receiveMemory(const TW_IMAGEINFO& info, std::unique_ptr<OffscreenImage>* image)
{
    std::string error;
    auto assembler = StripAssembler::create(info, &error);
    if (!assembler) return {kExitFailure, error};
    TW_SETUPMEMXFER sizes{};
    if (mSource.call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes) != TWRC_SUCCESS)
        return failure(kExitFailure, "the scanner gave no memory buffer sizes");
    // About a megabyte a strip: few calls, little memory, and within the
    // bounds the source accepts.
    std::size_t length = std::clamp<std::size_t>(1u << 20, sizes.MinBufSize, sizes.MaxBufSize);
    std::vector<std::uint8_t> buffer(length);
    while (!assembler->complete()) {
        if (mInterrupted) return {kExitCancelled, "cancelled"};
        TW_IMAGEMEMXFER strip{};
        strip.Memory = {TWMF_APPOWNS | TWMF_POINTER, static_cast<TW_UINT32>(buffer.size()), buffer.data()};
        TW_UINT16 rc = mSource.call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip);
        if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE) return failure(kExitFailure, "the memory transfer failed");
        if (!assembler->add(strip, buffer, &error)) return {kExitFailure, error};
        mProgress.update(static_cast<double>(strip.YOffset + strip.Rows) / info.ImageLength);
        if (rc == TWRC_XFERDONE && !assembler->complete())
            return {kExitFailure, "the memory transfer ended before the last row"};
    }
    *image = assembler->take();
    return {};
}

SessionResult ScanSession::transferMemory(const TW_IMAGEINFO& info, const std::string& target)
{
    std::unique_ptr<OffscreenImage> image;
    SessionResult result = receiveMemory(info, &image);
    if (result.exitCode != kExitOk) return result;
    if (!writeImage(*image, mOptions.format, target)) return {kExitFailure, "cannot write " + mOptions.output};
    return {};
}

SessionResult ScanSession::receiveImage(const TW_IMAGEINFO& info, std::unique_ptr<OffscreenImage>* image)
{
    if (mMechanism == Mechanism::Memory) return receiveMemory(info, image);
    // Native and file transfers hand over a TIFF, read back here.
    std::vector<std::uint8_t> bytes;
    if (mMechanism == Mechanism::Native) {
        TW_HANDLE handle = nullptr;
        TW_UINT16 rc = mSource.call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle);
        OwnedHandle owned(mSource, handle);
        if (rc != TWRC_XFERDONE) return failure(kExitFailure, "the native transfer failed");
        bytes.assign(owned.bytes().begin(), owned.bytes().end());
    } else {
        if (mSource.call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr) != TWRC_XFERDONE)
            return failure(kExitFailure, "the file transfer failed");
        std::ifstream file(mFileTarget, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    std::string error;
    *image = decodeTiff(bytes, &error);
    if (!*image) return {kExitFailure, error};
    return {};
}

SessionResult ScanSession::transferFile(const std::string& /*target: set up in negotiate()*/)
{
    if (mSource.call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr) != TWRC_XFERDONE)
        return failure(kExitFailure, "the file transfer failed");
    return {};
}

SessionResult ScanSession::transfer()
{
    TW_IMAGEINFO info{};
    if (mSource.call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS)
        return failure(kExitFailure, "the scanner gave no image information");
    mProgress.phase("Transferring");
    std::string target = mFileTarget;
    SessionResult result;
    switch (mMechanism) {
    case Mechanism::Native: result = transferNative(info, target); break;
    case Mechanism::Memory: result = transferMemory(info, target); break;
    case Mechanism::File: result = transferFile(target); break;
    }
    mProgress.update(1);
    mProgress.finish();
    if (result.exitCode != kExitOk) return result;
    TW_PENDINGXFERS pending{};
    if (mSource.call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending) == TWRC_SUCCESS) mTransferReady = false;
    std::error_code ec;
    std::uintmax_t bytes = std::filesystem::file_size(target, ec);
    if (ec || bytes == 0) return {kExitFailure, "the transfer left no image in " + mOptions.output};
    result.message = mOptions.output + ": " + describe(info, mOptions.format, bytes);
    return result;
}

bool ScanSession::askForPage(int page)
{
    mProgress.finish();
    std::fprintf(stderr, "Place page %d on the glass and press Enter, or q to finish: ", page);
    std::fflush(stderr);
    std::string answer;
    // Polled, so that Ctrl-C is seen while the user thinks.
    while (!mInterrupted) {
        pollfd in{STDIN_FILENO, POLLIN, 0};
        int ready = poll(&in, 1, 100);
        if (ready < 0 && errno != EINTR) return false;
        if (ready <= 0) continue;
        char c = 0;
        ssize_t n = read(STDIN_FILENO, &c, 1);
        if (n <= 0) return false;  // end of input: the user is done
        if (c == '\n') break;
        answer += c;
    }
    if (mInterrupted) return false;
    return answer.find_first_not_of(" \t") == std::string::npos ||
           (answer.find('q') == std::string::npos && answer.find('Q') == std::string::npos);
}

SessionResult ScanSession::scanPage(Document& document)
{
    TW_USERINTERFACE ui{static_cast<TW_BOOL>(mOptions.showUI ? 1 : 0), 1, nullptr};
    if (mSource.call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui) != TWRC_SUCCESS)
        return failure(kExitDevice, "cannot start the scanner");
    mEnabled = true;
    SessionResult result = waitForTransfer();
    if (result.exitCode != kExitOk) return result;
    TW_IMAGEINFO info{};
    if (mSource.call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS)
        return failure(kExitFailure, "the scanner gave no image information");
    mProgress.phase("Transferring");
    std::unique_ptr<OffscreenImage> image;
    result = receiveImage(info, &image);
    mProgress.update(1);
    mProgress.finish();
    if (result.exitCode != kExitOk) return result;
    TW_PENDINGXFERS pending{};
    if (mSource.call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending) == TWRC_SUCCESS) mTransferReady = false;
    // Back to the open source, as a client does between pages: the next
    // page is its own enable.
    windDownToOpen();
    if (mInterrupted) return {kExitCancelled, "cancelled"};
    mLastInfo = info;
    std::string error;
    if (!document.addPage(std::move(image), &error))
        return {mInterrupted ? kExitCancelled : kExitFailure, error};
    return {};
}

SessionResult ScanSession::scanDocument()
{
    std::string error;
    auto document = makeDocument(mOptions, mOcr, mWorkDir, mInterrupted, &error);
    if (!document) return {kExitUsage, error};
    // The tool writes the pages itself: memory transfers bring them
    // quickest unless the user chose otherwise; a file transfer lands in a
    // TIFF of our own that is read back.
    if (!mOptions.mechanismChosen) mMechanism = Mechanism::Memory;
    mFileTarget = mWorkDir + "/page.tif";
    mFileFormat = OutputFormat::Tiff;

    if (mSource.open() != TWRC_SUCCESS) {
        bool noScanner = false;
        for (const AlertSeen& alert : readUiLog(mUiLog).alerts) noScanner |= alert.row == 2;
        return failure(noScanner ? kExitDevice : kExitFailure, "cannot open the scanner");
    }
    SessionResult result = negotiate();
    bool prompts = isatty(STDIN_FILENO) == 1;
    for (int page = 1; result.exitCode == kExitOk && (mOptions.pages == 0 || page <= mOptions.pages); ++page) {
        if (page > 1 && prompts && !askForPage(page)) {
            if (mInterrupted) result = {kExitCancelled, "cancelled"};
            break;
        }
        result = scanPage(*document);
    }
    windDown();
    if (result.exitCode == kExitOk && mInterrupted) result = {kExitCancelled, "cancelled"};
    // A failed or cancelled document is dropped, or kept as far as it got
    // when the user asked for that.
    if (result.exitCode != kExitOk && !(mOptions.keepPartial && document->pageCount() > 0)) return result;
    if (document->pageCount() == 0) return {kExitFailure, "no page was scanned"};
    if (!document->finish(&error)) return result.exitCode != kExitOk ? result : SessionResult{kExitFailure, error};
    if (result.exitCode != kExitOk) {
        int kept = document->pageCount();
        result.message += " (kept the " + std::to_string(kept) + (kept == 1 ? " page" : " pages") + " scanned before)";
        return result;
    }
    // One file, or one a page named from the pattern: the line names them all.
    bool oneFile = isMultiPageFormat(mOptions.format);
    std::uintmax_t bytes = 0;
    std::error_code ec;
    for (int page = 1; page <= (oneFile ? 1 : document->pageCount()); ++page)
        bytes += std::filesystem::file_size(oneFile ? mOptions.output : pagePath(mOptions.output, page), ec);
    std::string name = oneFile || document->pageCount() > 1 ? mOptions.output : pagePath(mOptions.output, 1);
    result.message = name + ": " + std::to_string(document->pageCount()) + " page" +
                     (document->pageCount() == 1 ? ", " : "s, ") + describe(mLastInfo, mOptions.format, bytes);
    return result;
}

SessionResult ScanSession::scan()
{
    if (isDocument(mOptions)) return scanDocument();
    std::string error;
    auto pending = PendingFile::create(mOptions.output, &error);
    if (!pending) return {kExitUsage, error};
    mFileTarget = pending->path();

    if (mSource.open() != TWRC_SUCCESS) {
        bool noScanner = false;
        for (const AlertSeen& alert : readUiLog(mUiLog).alerts) noScanner |= alert.row == 2;
        return failure(noScanner ? kExitDevice : kExitFailure, "cannot open the scanner");
    }
    SessionResult result = negotiate();
    if (result.exitCode == kExitOk) {
        TW_USERINTERFACE ui{static_cast<TW_BOOL>(mOptions.showUI ? 1 : 0), 1, nullptr};
        if (mSource.call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui) != TWRC_SUCCESS)
            result = failure(kExitDevice, "cannot start the scanner");
        else
            mEnabled = true;
    }
    if (result.exitCode == kExitOk) result = waitForTransfer();
    if (result.exitCode == kExitOk) result = transfer();
    windDown();
    if (result.exitCode == kExitOk && mInterrupted) result = {kExitCancelled, "cancelled"};
    if (result.exitCode == kExitOk && !pending->commit(mOptions.overwrite, &error)) result = {kExitUsage, error};
    return result;
}

SessionResult ScanSession::list()
{
    if (mSource.open() != TWRC_SUCCESS) return failure(kExitDevice, "cannot open the scanner");
    std::string text = mOptions.json ? listJson(mSource) : listTable(mSource);
    windDown();
    return {kExitOk, text};
}

}  // namespace zentary
