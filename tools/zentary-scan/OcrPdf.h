// Searchable PDF: each page recognised by Tesseract and written by its own
// PDF renderer, the page picture with the recognised words invisible over it.
// A page is recognised on a worker thread while the next one is scanned.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Documents.h"

namespace tesseract {
class TessBaseAPI;
}

namespace zentary {

// Tesseract with its language data loaded, ready before anything is scanned.
class OcrEngine {
public:
    // Null with one line for the user when the language data is not installed.
    static std::unique_ptr<OcrEngine> create(const std::string& language, std::string* error);
    ~OcrEngine();
    tesseract::TessBaseAPI& api() { return *mApi; }

private:
    OcrEngine();
    std::unique_ptr<tesseract::TessBaseAPI> mApi;
};

std::unique_ptr<Document> makeOcrPdf(const ScanOptions& options, OcrEngine& engine, const std::string& workDir,
                                     const std::atomic<bool>& interrupted, std::string* error);

}  // namespace zentary
