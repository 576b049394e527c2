#include "imaging/ImageConvert.h"

#include "imaging/ImageExport.h"
#include "imaging/RawFileReader.h"

namespace zentary {

std::unique_ptr<OffscreenImage> ImageConvert::newGWorldFromRawFile(const std::string& path) {
    return zentary::newGWorldFromRawFile(path);
}

bool ImageConvert::isScanRawFile(const std::string& path) {
    return zentary::isScanRawFile(path);
}

bool ImageConvert::saveGWorld(const OffscreenImage* image, const char* toFile, std::uint32_t ofType) {
    if (image == nullptr || toFile == nullptr || *toFile == '\0') return false;
    switch (ofType) {
    case kFileTypeTIFF: return exportTiff(*image, toFile);
    case kFileTypePICT: return exportPict(*image, toFile);
    case kFileTypeJPEG: return exportJpeg(*image, toFile);
    default: return false;
    }
}

std::unique_ptr<OffscreenImage> ImageConvert::createGWorldByExample(const OffscreenImage* example) {
    return example != nullptr ? OffscreenImage::createByExample(*example) : nullptr;
}

}  // namespace zentary
