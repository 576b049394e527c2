// The DG_IMAGE triplets: image information, the scan frame, and the three
// ways of handing the image over.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "capabilities/Capabilities.h"
#include "capabilities/ContainerCodec.h"
#include "ds/DSAlerts.h"
#include "ds/DSFileUtils.h"
#include "ds/DSPreferences.h"
#include "ds/DataSourceEngine.h"
#include "imaging/ByteSink.h"
#include "imaging/ImageConvert.h"
#include "imaging/ImageExport.h"
#include "imaging/PictRecorder.h"
#include "imaging/RawFileReader.h"
#include "platform/Preferences.h"
#include "twain/Manager.h"

namespace zentary {

using namespace twain;

namespace {

constexpr double kImageCaptureByteLimit = 143654912.0;
constexpr TW_UINT32 kDontCare32 = 0xFFFFFFFF;

TW_UINT16 failWith(TW_UINT16* conditionCode, TW_UINT16 code)
{
    if (conditionCode) *conditionCode = code;
    return TWRC_FAILURE;
}

float toFloat(const TW_FIX32& value)
{
    return static_cast<float>(value.Whole) + static_cast<float>(value.Frac) / 65536.0f;
}

TW_FIX32 toFix32(float value)
{
    auto whole = static_cast<TW_INT16>(std::trunc(value));
    auto frac = static_cast<TW_UINT16>(std::trunc((value - static_cast<float>(whole)) * 65536.0f));
    return {whole, frac};
}

std::optional<TW_FIX32> fix32Value(const std::optional<CapabilityValue>& value)
{
    if (!value || !value->isFix32()) return std::nullopt;
    return TW_FIX32{static_cast<TW_INT16>(value->items()[0].number()),
                    static_cast<TW_UINT16>(value->items()[1].number())};
}

// ICAP_FRAMES keeps a frame as its four edges, each a TW_FIX32 pair.
CapabilityValue frameValue(const TW_FRAME& frame)
{
    auto edge = [](const TW_FIX32& v) { return CapabilityValue::fix32(v.Whole, v.Frac); };
    return CapabilityValue::list({edge(frame.Left), edge(frame.Top), edge(frame.Right), edge(frame.Bottom)});
}

// The container codec reads a client's frame as four pairs; anything else
// would read as an empty frame, which the layout rules refuse.
TW_FRAME frameOf(const CapabilityValue& value)
{
    auto edge = [&](std::size_t i) {
        return value.items().size() == 4 ? fix32Value(value.items()[i]).value_or(TW_FIX32{0, 0}) : TW_FIX32{0, 0};
    };
    return {edge(0), edge(1), edge(2), edge(3)};
}

// Native transfers hand over a whole TIFF file unless the user asked for the
// picture of the original platform.
bool nativeIsPict()
{
    if (const char* env = std::getenv("ZENTARY_NATIVE")) return std::strcmp(env, "pict") == 0;
    std::optional<std::string> format = Preferences(kDsAppId).string("nativeFormat");
    return format && *format == "PICT";
}

// Bytes in a handle of the client's (through the manager's allocator).
TW_HANDLE handleWithBytes(const std::vector<std::uint8_t>& bytes)
{
    TW_HANDLE handle = Manager::allocate(bytes.size());
    if (!handle) return nullptr;
    void* memory = Manager::lock(handle);
    if (!memory) {
        Manager::free(handle);
        return nullptr;
    }
    std::memcpy(memory, bytes.data(), bytes.size());
    Manager::unlock(handle);
    Manager::handOver(handle);
    return handle;
}

// The image as a TIFF written straight into a handle of the client's. An
// uncompressed TIFF of a given image always has the same size, so a first
// pass that only counts sizes the handle and the second writes into it: the
// file never exists twice, nor in memory that grows by reallocation. Null
// with `made` false when the TIFF cannot be written, true when the memory
// cannot be had.
TW_HANDLE handleWithTiff(const OffscreenImage& image, bool* made)
{
    CountingSink counter;
    *made = writeTiff(image, counter);
    if (!*made) return nullptr;
    if constexpr (sizeof(std::size_t) < sizeof(std::uint64_t))
        if (counter.position() > static_cast<std::uint64_t>(static_cast<std::size_t>(-1))) return nullptr;
    const auto size = static_cast<std::size_t>(counter.position());
    TW_HANDLE handle = Manager::allocate(size);
    if (!handle) return nullptr;
    void* memory = Manager::lock(handle);
    FixedMemorySink sink(memory, size);
    *made = memory && writeTiff(image, sink) && sink.position() == size;
    if (memory) Manager::unlock(handle);
    if (!memory || !*made) {
        Manager::free(handle);
        return nullptr;
    }
    Manager::handOver(handle);
    return handle;
}

}  // namespace

TW_UINT16 DataSourceEngine::image(TW_IDENTITY* /*origin*/, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data,
                                  TW_UINT16* conditionCode)
{
    switch (type) {
    case DAT_IMAGEINFO:
        return imageInfo(message, static_cast<TW_IMAGEINFO*>(data), conditionCode);
    case DAT_IMAGELAYOUT:
        return imageLayout(message, static_cast<TW_IMAGELAYOUT*>(data), conditionCode);
    case DAT_IMAGEMEMXFER:
        return memoryTransfer(message, static_cast<TW_IMAGEMEMXFER*>(data), conditionCode);
    case DAT_IMAGENATIVEXFER:
        return nativeTransfer(message, static_cast<TW_HANDLE*>(data), conditionCode);
    case DAT_IMAGEFILEXFER:
        return fileTransfer(message, conditionCode);
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::imageInfo(TW_UINT16 message, TW_IMAGEINFO* info, TW_UINT16* conditionCode)
{
    if (!info) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    // Refused while a memory transfer still has strips to send.
    if (!(mState == kStateTransferReady || (mState == kStateTransferring && mImageTransferState == 3)))
        return failWith(conditionCode, TWCC_SEQERROR);
    RawFileHeader header{};
    if (!mImageFile || !readRawScanFileHeader(&header, *mImageFile))
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    TW_INT16 samples, pixelType;
    if (header.colorType == 0) {
        samples = 3;  // the file keeps a fourth, unused byte per pixel
        pixelType = TWPT_RGB;
    } else if (header.colorType == 1) {
        samples = static_cast<TW_INT16>(header.bytesPerPixel);
        pixelType = TWPT_GRAY;
    } else {
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    }
    // Only as many samples as BitsPerSample has room for are described.
    if (samples < 0 || samples > 8) return failWith(conditionCode, TWCC_OPERATIONERROR);
    info->XResolution = {static_cast<TW_INT16>(header.resolution), 0};
    info->YResolution = info->XResolution;
    info->ImageWidth = static_cast<TW_INT32>(header.pixelsPerRow);
    info->ImageLength = static_cast<TW_INT32>(header.rows);
    info->SamplesPerPixel = samples;
    for (int i = 0; i < samples; ++i) info->BitsPerSample[i] = static_cast<TW_INT16>(header.bitsPerSample);
    info->BitsPerPixel = static_cast<TW_INT16>(samples * static_cast<TW_INT16>(header.bitsPerSample));
    info->Planar = 0;
    info->PixelType = pixelType;
    info->Compression = TWCP_NONE;
    return TWRC_SUCCESS;
}

TW_UINT16 DataSourceEngine::defaultLayout(TW_IMAGELAYOUT& layout)
{
    std::optional<TW_FIX32> width = fix32Value(mCapabilities->currentValue(ICAP_PHYSICALWIDTH));
    std::optional<TW_FIX32> height = fix32Value(mCapabilities->currentValue(ICAP_PHYSICALHEIGHT));
    if (!width || !height) return TWCC_BUMMER;
    layout.Frame = {{0, 0}, {0, 0}, *width, *height};
    layout.DocumentNumber = layout.PageNumber = layout.FrameNumber = 1;
    return 0;
}

TW_UINT16 DataSourceEngine::imageLayout(TW_UINT16 message, TW_IMAGELAYOUT* layout, TW_UINT16* conditionCode)
{
    if (!layout) return failWith(conditionCode, TWCC_BADVALUE);
    switch (message) {
    case MSG_GET:
        if (mState > kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
        *layout = mImageLayout;
        return TWRC_SUCCESS;
    case MSG_GETDEFAULT: {
        if (mState > kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
        TW_IMAGELAYOUT fresh{};
        if (TW_UINT16 code = defaultLayout(fresh)) return failWith(conditionCode, code);
        *layout = fresh;
        return TWRC_SUCCESS;
    }
    case MSG_RESET: {
        if (mState != kStateOpen) return failWith(conditionCode, TWCC_SEQERROR);
        TW_IMAGELAYOUT fresh{};
        if (TW_UINT16 code = defaultLayout(fresh)) return failWith(conditionCode, code);
        *layout = mImageLayout = fresh;
        publishFrame();
        return TWRC_SUCCESS;
    }
    case MSG_SET:
        if (mState != kStateOpen) return failWith(conditionCode, TWCC_SEQERROR);
        return setImageLayout(*layout, conditionCode);
    default:
        return failWith(conditionCode, TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::setImageLayout(const TW_IMAGELAYOUT& layout, TW_UINT16* conditionCode)
{
    std::optional<TW_FIX32> glassWidth = fix32Value(mCapabilities->currentValue(ICAP_PHYSICALWIDTH));
    std::optional<TW_FIX32> glassHeight = fix32Value(mCapabilities->currentValue(ICAP_PHYSICALHEIGHT));
    if (!glassWidth || !glassHeight) return failWith(conditionCode, TWCC_BUMMER);
    float w = toFloat(*glassWidth), h = toFloat(*glassHeight);
    float left = toFloat(layout.Frame.Left), top = toFloat(layout.Frame.Top);
    float right = toFloat(layout.Frame.Right), bottom = toFloat(layout.Frame.Bottom);

    TW_UINT16 rc = TWRC_SUCCESS;
    // Image Capture is told nothing of the adjustments.
    auto adjusted = [&] {
        if (!mClientIsImageCapture) rc = TWRC_CHECKSTATUS;
    };
    if (left < 0) {  // moved onto the glass, keeping its width
        right -= left;
        left = 0;
        adjusted();
    }
    if (top < 0) {
        bottom -= top;
        top = 0;
        adjusted();
    }
    if (left >= right || top >= bottom) return failWith(conditionCode, TWCC_BADVALUE);

    TW_FRAME& frame = mImageLayout.Frame;
    frame.Left = toFix32(left);
    if (left >= w) frame.Left = {0, 0}, adjusted();
    frame.Top = toFix32(top);
    if (top >= h) frame.Top = {0, 0}, adjusted();
    frame.Right = toFix32(right);
    if (right > w) frame.Right = *glassWidth, adjusted();
    frame.Bottom = toFix32(bottom);
    if (bottom > h) frame.Bottom = *glassHeight, adjusted();
    if (layout.DocumentNumber != kDontCare32) mImageLayout.DocumentNumber = layout.DocumentNumber;
    if (layout.PageNumber != kDontCare32) mImageLayout.PageNumber = layout.PageNumber;
    if (layout.FrameNumber != kDontCare32) mImageLayout.FrameNumber = layout.FrameNumber;
    publishFrame();
    return rc;
}

void DataSourceEngine::publishFrame()
{
    // ICAP_FRAMES offers no list of frames, so any frame of the right shape
    // is taken, and ours always has it.
    mCapabilities->setCurrentValue(ICAP_FRAMES, frameValue(mImageLayout.Frame));
}

TW_UINT16 DataSourceEngine::frames(TW_UINT16 message, TW_CAPABILITY* cap, TW_UINT16* conditionCode)
{
    if (message == MSG_RESET) {
        TW_IMAGELAYOUT fresh{};
        if (TW_UINT16 code = defaultLayout(fresh)) return failWith(conditionCode, code);
        mImageLayout.Frame = fresh.Frame;
        publishFrame();
        return mCapabilities->getCurrentTwain(cap, conditionCode);
    }
    // One frame a page: a one-value, or the current item of an enumeration
    // (the others are dropped, and the client told so).
    if (!cap->hContainer) return failWith(conditionCode, TWCC_BADVALUE);
    containers::ClientContainer container(cap->hContainer);
    if (container.itemType() != std::optional<TW_UINT16>(TWTY_FRAME)) return failWith(conditionCode, TWCC_BADVALUE);
    TW_UINT16 code = TWCC_BADVALUE;
    std::optional<CapabilityValue> frame;
    bool dropped = false;
    if (cap->ConType == TWON_ONEVALUE) {
        frame = container.oneValue(TWTY_FRAME, false, &code);
    } else if (cap->ConType == TWON_ENUMERATION) {
        TW_UINT32 current = 0;
        auto items = container.enumerationItems(TWTY_FRAME, &current, &code);
        if (items && current >= items->size()) return failWith(conditionCode, TWCC_BUMMER);
        if (items) frame = (*items)[current], dropped = items->size() > 1;
    } else {
        return failWith(conditionCode, TWCC_BUMMER);
    }
    if (!frame) return failWith(conditionCode, code);
    TW_UINT16 rc = setImageLayout({frameOf(*frame), kDontCare32, kDontCare32, kDontCare32}, conditionCode);
    return rc == TWRC_SUCCESS && dropped && !mClientIsImageCapture ? TWRC_CHECKSTATUS : rc;
}

TW_UINT16 DataSourceEngine::nativeTransfer(TW_UINT16 message, TW_HANDLE* picture, TW_UINT16* conditionCode)
{
    if (!picture) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState != kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
    std::unique_ptr<OffscreenImage> image;
    if (mImageFile) image = ImageConvert::newGWorldFromRawFile(*mImageFile);
    if (!image) return failWith(conditionCode, TWCC_SUCCESS);  // the raw file could not be read
    if (mClientIsImageCapture &&
        static_cast<double>(image->width()) * image->height() * 4.0 > kImageCaptureByteLimit) {
        DSAlerts::displayMessage(8);
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    }
    bool made = false;
    TW_HANDLE handle = nullptr;
    if (nativeIsPict()) {
        std::vector<std::uint8_t> bytes;
        made = recordPicture(*image, bytes);
        image.reset();  // before the handle exists: one copy of the pixels less at the peak
        if (made) handle = handleWithBytes(bytes);
    } else {
        handle = handleWithTiff(*image, &made);
    }
    if (!handle) return failWith(conditionCode, made ? TWCC_LOWMEMORY : TWCC_OPERATIONERROR);
    *picture = handle;  // the client owns it from here on
    mState = kStateTransferring;
    mImageTransferState = 3;
    return TWRC_XFERDONE;
}

TW_UINT16 DataSourceEngine::fileTransfer(TW_UINT16 message, TW_UINT16* conditionCode)
{
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState != kStateTransferReady) return failWith(conditionCode, TWCC_SEQERROR);
    DSFileUtils::FileSpec spec = DSFileUtils::makeFSSpec(mFile);
    // The target was created when it was set up; gone now, it was removed
    // behind our back.
    if (spec.result == DSFileUtils::kFileNotFound) return failWith(conditionCode, TWCC_OPERATIONERROR);
    if (spec.path.empty()) return failWith(conditionCode, TWCC_OPERATIONERROR);
    if (mFileFormatType != ICAP_IMAGEFILEFORMAT) return failWith(conditionCode, TWCC_OPERATIONERROR);
    std::optional<CapabilityValue> format = mCapabilities->currentValue(ICAP_IMAGEFILEFORMAT);
    if (!format || !format->isNumber()) return failWith(conditionCode, TWCC_LOWMEMORY);
    std::uint32_t fileType;
    switch (format->number()) {
    case TWFF_TIFF:
        fileType = kFileTypeTIFF;
        break;
    case TWFF_PICT:
        fileType = kFileTypePICT;
        break;
    case TWFF_JFIF:
        fileType = kFileTypeJPEG;
        break;
    default:
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    }
    std::unique_ptr<OffscreenImage> image;
    if (mImageFile) image = ImageConvert::newGWorldFromRawFile(*mImageFile);
    if (!image) return failWith(conditionCode, TWCC_SUCCESS);
    if (!ImageConvert::saveGWorld(image.get(), spec.path.c_str(), fileType))
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    mState = kStateTransferring;
    mImageTransferState = 3;
    return TWRC_XFERDONE;
}

TW_UINT16 DataSourceEngine::memoryTransfer(TW_UINT16 message, TW_IMAGEMEMXFER* block, TW_UINT16* conditionCode)
{
    if (!block) return failWith(conditionCode, TWCC_BADVALUE);
    if (message != MSG_GET) return failWith(conditionCode, TWCC_BADPROTOCOL);
    if (mState <= kStateEnabled) return failWith(conditionCode, TWCC_SEQERROR);
    TW_UINT32 length = block->Memory.Length;
    if (!block->Memory.TheMem || length < mMinimumMemoryBufferSize || length > mMaximumMemoryBufferSize)
        return failWith(conditionCode, TWCC_BADVALUE);
    bool isHandle = block->Memory.Flags & TWMF_HANDLE;
    auto* destination = static_cast<std::uint8_t*>(isHandle ? Manager::lock(block->Memory.TheMem)
                                                             : block->Memory.TheMem);
    if (!destination) return failWith(conditionCode, TWCC_BADVALUE);
    struct Unlock {
        TW_HANDLE handle;
        ~Unlock()
        {
            if (handle) Manager::unlock(handle);
        }
    } unlock{isHandle ? block->Memory.TheMem : nullptr};

    if (!mMemoryTransferGraphicsWorld) {
        if (mImageFile) mMemoryTransferGraphicsWorld = ImageConvert::newGWorldFromRawFile(*mImageFile);
        if (!mMemoryTransferGraphicsWorld) return failWith(conditionCode, TWCC_SUCCESS);
    }
    const OffscreenImage& image = *mMemoryTransferGraphicsWorld;
    const std::uint8_t* base = image.baseAddress();
    if (!base) {
        mMemoryTransferGraphicsWorld.reset();
        return failWith(conditionCode, TWCC_OPERATIONERROR);
    }
    auto width = static_cast<TW_UINT32>(image.width());
    auto height = static_cast<TW_UINT32>(image.height());
    int depth = image.depth() == 32 ? 24 : image.depth();  // the alpha byte is not sent
    std::size_t dataBytes = static_cast<std::size_t>(depth) * width / 8;
    std::size_t pad = dataBytes % 4;
    std::size_t bytesPerRow = dataBytes + pad;
    std::size_t rowsThisStrip = length / bytesPerRow;

    std::size_t copied = 0;
    std::uint8_t* out = destination;
    while (copied < rowsThisStrip && mMemoryTransferRowsTransfered < height) {
        const std::uint8_t* in = image.row(static_cast<int>(mMemoryTransferRowsTransfered));
        if (depth == 8) {
            std::memcpy(out, in, dataBytes);
        } else {
            packRgb(in, out, static_cast<int>(width));  // red, green, blue; the alpha byte is dropped
        }
        std::memset(out + dataBytes, 0, pad);
        out += bytesPerRow;
        ++copied;
        ++mMemoryTransferRowsTransfered;
    }

    block->Compression = TWCP_NONE;
    block->BytesPerRow = static_cast<TW_UINT32>(bytesPerRow);
    block->Columns = width;
    block->Rows = static_cast<TW_UINT32>(copied);
    block->XOffset = 0;
    block->YOffset = mMemoryTransferRowsTransfered - static_cast<TW_UINT32>(copied);
    block->BytesWritten = static_cast<TW_UINT32>(bytesPerRow * copied);
    mState = kStateTransferring;
    mImageTransferState = 2;
    if (mMemoryTransferRowsTransfered < height) return TWRC_SUCCESS;
    mMemoryTransferGraphicsWorld.reset();
    mMemoryTransferRowsTransfered = 0;
    mImageTransferState = 3;
    return TWRC_XFERDONE;
}

}  // namespace zentary
