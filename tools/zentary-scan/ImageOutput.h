// Turning what the data source handed over into the user's file: a native
// TIFF kept as it is or decoded, memory strips assembled into an image, and
// every file written under a temporary name and moved into place only when
// complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "ScanOptions.h"
#include "imaging/OffscreenImage.h"
#include "twain/twain.h"

namespace zentary {

// A temporary file beside the user's output, removed unless committed.
class PendingFile {
public:
    // Null with *error set when the directory is not writable. The
    // temporary name ends in `suffix` for writers that insist on one.
    static std::unique_ptr<PendingFile> create(const std::string& finalPath, std::string* error,
                                               const std::string& suffix = {});
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    const std::string& path() const { return mTemporaryPath; }
    // Gives the file the mode of a newly created one and moves it to the
    // final path; with `overwrite` false an existing file there is kept and
    // the commit fails.
    bool commit(bool overwrite, std::string* error);

private:
    PendingFile() = default;
    std::string mFinalPath;
    std::string mTemporaryPath;
    bool mCommitted = false;
};

// Decodes a whole baseline TIFF held in memory (8-bit gray or 8-bit RGB,
// chunky, uncompressed or not): null when it is anything else or broken.
std::unique_ptr<OffscreenImage> decodeTiff(std::span<const std::uint8_t> bytes, std::string* error);

// Collects memory-transfer strips into an image of the size the data
// source announced. Every strip is checked against that size first.
class StripAssembler {
public:
    // Null for an image description we cannot hold (not 8-bit gray or 24-bit RGB).
    static std::unique_ptr<StripAssembler> create(const TW_IMAGEINFO& info, std::string* error);
    bool add(const TW_IMAGEMEMXFER& strip, std::span<const std::uint8_t> buffer, std::string* error);
    bool complete() const { return mRowsReceived >= static_cast<std::uint64_t>(mImage->height()); }
    std::unique_ptr<OffscreenImage> take() { return std::move(mImage); }

private:
    std::unique_ptr<OffscreenImage> mImage;
    std::uint64_t mRowsReceived = 0;
};

// Writes an image in `format` (TIFF, JPEG, PICT, PNG) to `path` (a pending file's temporary path).
bool writeImage(const OffscreenImage& image, OutputFormat format, const std::string& path);
// Writes bytes as they are.
bool writeBytes(std::span<const std::uint8_t> bytes, const std::string& path);

}  // namespace zentary
