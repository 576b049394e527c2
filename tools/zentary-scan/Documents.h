// The files a scan of one or more pages ends in when the tool writes them
// itself: a PDF (libharu) or searchable PDF (Tesseract), one multi-page TIFF
// (libtiff), or one file per page (PNG through libpng, JPEG, PICT, TIFF).
// Nothing reaches the user's path before finish(): a document dropped
// unfinished leaves no file behind.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "ScanOptions.h"
#include "imaging/OffscreenImage.h"

namespace zentary {

class OcrEngine;

class Document {
public:
    virtual ~Document() = default;
    // Takes the next page; false with one line in *error.
    virtual bool addPage(std::unique_ptr<OffscreenImage> page, std::string* error) = 0;
    // Writes what was added and moves it into place; false with *error.
    virtual bool finish(std::string* error) = 0;
    int pageCount() const { return mPages; }

protected:
    std::atomic<int> mPages{0};  // a recognising worker may drop the page it was given
};

// The document for the options' output. `ocr` (for --ocr) has its language
// loaded; `workDir` is private scratch space; `interrupted` stops OCR early.
std::unique_ptr<Document> makeDocument(const ScanOptions& options, OcrEngine* ocr, const std::string& workDir,
                                       const std::atomic<bool>& interrupted, std::string* error);

// Gray or colour PNG with the resolution in its pHYs chunk.
bool writePng(const OffscreenImage& image, const std::string& path);

}  // namespace zentary
