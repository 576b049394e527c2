#include "OcrPdf.h"

#include <leptonica/allheaders.h>
#include <tesseract/baseapi.h>
#include <tesseract/ocrclass.h>
#include <tesseract/renderer.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "ImageOutput.h"
#include "imaging/ImageExport.h"

namespace zentary {

namespace {

struct PixOwner {
    void operator()(Pix* pix) const { pixDestroy(&pix); }
};
using UniquePix = std::unique_ptr<Pix, PixOwner>;

UniquePix toPix(const OffscreenImage& image)
{
    bool gray = image.depth() == 8;
    UniquePix pix(pixCreate(image.width(), image.height(), gray ? 8 : 32));
    if (!pix) return nullptr;
    l_uint32* data = pixGetData(pix.get());
    int wordsPerLine = pixGetWpl(pix.get());
    for (int y = 0; y < image.height(); ++y) {
        const std::uint8_t* in = image.row(y);
        l_uint32* line = data + std::ptrdiff_t(y) * wordsPerLine;
        for (int x = 0; x < image.width(); ++x) {
            if (gray)
                SET_DATA_BYTE(line, x, in[x]);
            else
                composeRGBPixel(in[4 * x + 1], in[4 * x + 2], in[4 * x + 3], line + x);
        }
    }
    auto dpi = l_int32(image.hRes() / 65536.0 + 0.5);
    pixSetResolution(pix.get(), dpi, dpi);
    return pix;
}

class OcrPdf final : public Document {
public:
    OcrPdf(const ScanOptions& options, OcrEngine& engine, std::string workDir, const std::atomic<bool>& interrupted)
        : mOptions(options), mApi(engine.api()), mWorkDir(std::move(workDir)), mInterrupted(interrupted)
    {
    }
    ~OcrPdf() override
    {
        mStopping = true;  // a page being recognised is abandoned
        {
            std::lock_guard<std::mutex> guard(mMutex);
            mStop = true;
        }
        mChanged.notify_all();
        if (mWorker.joinable()) mWorker.join();
    }

    bool open(std::string* error)
    {
        // Tesseract's renderer writes to <base>.pdf: the pending file's name ends so.
        mFile = PendingFile::create(mOptions.output, error, ".pdf");
        if (!mFile) return false;
        std::string base = mFile->path().substr(0, mFile->path().size() - 4);
        mRenderer = std::make_unique<tesseract::TessPDFRenderer>(base.c_str(), mApi.GetDatapath(), false);
        if (!mRenderer->happy() || !mRenderer->BeginDocument("zentary-scan")) {
            *error = "cannot write " + mOptions.output;
            return false;
        }
        mWorker = std::thread([this] { work(); });
        return true;
    }

    bool addPage(std::unique_ptr<OffscreenImage> page, std::string* error) override
    {
        // The renderer embeds the picture file it is given as it stands: a
        // PNG keeps a gray page lossless, a JPEG at the chosen quality keeps
        // a colour page as small as in a plain PDF.
        Job job;
        job.picture = mWorkDir + "/ocr-page-" + std::to_string(mPages + 1) + (page->depth() == 8 ? ".png" : ".jpg");
        bool written = page->depth() == 8 ? writePng(*page, job.picture)
                                          : exportJpeg(*page, job.picture, mOptions.quality);
        job.pix = toPix(*page);
        page.reset();
        if (!written || !job.pix) {
            *error = "out of memory or disk space for page " + std::to_string(mPages + 1);
            return false;
        }
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [this] { return !mJob && !mBusy; });
        if (!mError.empty()) {
            *error = mError;
            return false;
        }
        mJob = std::move(job);
        ++mPages;
        lock.unlock();
        mChanged.notify_all();
        return true;
    }

    bool finish(std::string* error) override
    {
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait(lock, [this] { return !mJob && !mBusy; });
            if (!mError.empty() || mPages == 0) {
                *error = mError.empty() ? "no page was recognised" : mError;
                return false;
            }
        }
        bool ended = mRenderer->EndDocument() && mRenderer->happy();
        mRenderer.reset();  // closes the file
        if (!ended) {
            *error = "cannot write " + mOptions.output;
            return false;
        }
        return mFile->commit(mOptions.overwrite, error);
    }

private:
    struct Job {
        UniquePix pix;
        std::string picture;
    };

    static bool cancel(void* self, int)
    {
        // With --keep-partial the pages already scanned are finished: they
        // are what the user asked to keep.
        auto* ocr = static_cast<OcrPdf*>(self);
        return (ocr->mInterrupted && !ocr->mOptions.keepPartial) || ocr->mStopping;
    }

    void work()
    {
        for (;;) {
            Job job;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mChanged.wait(lock, [this] { return mStop || mJob; });
                if (mStop) {
                    mStopping = true;
                    return;
                }
                job = std::move(*mJob);
                mJob.reset();
                mBusy = true;
            }
            mApi.SetInputName(job.picture.c_str());
            mApi.SetImage(job.pix.get());
            tesseract::ETEXT_DESC monitor;
            monitor.cancel = cancel;
            monitor.cancel_this = this;
            bool ok = mApi.Recognize(&monitor) == 0 && !cancel(this, 0) && mRenderer->AddImage(&mApi);
            mApi.Clear();
            std::remove(job.picture.c_str());
            {
                std::lock_guard<std::mutex> guard(mMutex);
                mBusy = false;
                // A page abandoned at Ctrl-C is simply not in the document:
                // the pages before it can still be kept (--keep-partial).
                if (!ok && cancel(this, 0))
                    --mPages;
                else if (!ok && mError.empty())
                    mError = "text recognition failed on a page of " + mOptions.output;
            }
            mChanged.notify_all();
        }
    }

    const ScanOptions& mOptions;
    tesseract::TessBaseAPI& mApi;
    std::string mWorkDir;
    const std::atomic<bool>& mInterrupted;
    std::unique_ptr<PendingFile> mFile;
    std::unique_ptr<tesseract::TessPDFRenderer> mRenderer;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::optional<Job> mJob;
    bool mBusy = false;
    bool mStop = false;
    std::atomic<bool> mStopping{false};
    std::string mError;
    std::thread mWorker;  // last: joined by the destructor before anything it uses goes
};

}  // namespace

OcrEngine::OcrEngine() : mApi(std::make_unique<tesseract::TessBaseAPI>()) {}
OcrEngine::~OcrEngine() = default;

std::unique_ptr<OcrEngine> OcrEngine::create(const std::string& language, std::string* error)
{
    std::unique_ptr<OcrEngine> engine(new OcrEngine);
    // Tesseract's own complaints would come before our one line.
    engine->mApi->SetVariable("debug_file", "/dev/null");
    if (engine->mApi->Init(nullptr, language.c_str()) != 0) {
        *error = "--ocr: no Tesseract language data for '" + language + "' (Debian: apt install tesseract-ocr-" +
                 language.substr(0, language.find('+')) + ")";
        return nullptr;
    }
    engine->mApi->SetPageSegMode(tesseract::PSM_AUTO);
    return engine;
}

std::unique_ptr<Document> makeOcrPdf(const ScanOptions& options, OcrEngine& engine, const std::string& workDir,
                                     const std::atomic<bool>& interrupted, std::string* error)
{
    auto pdf = std::make_unique<OcrPdf>(options, engine, workDir, interrupted);
    if (!pdf->open(error)) return nullptr;
    return pdf;
}

}  // namespace zentary
