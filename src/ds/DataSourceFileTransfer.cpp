// DAT_SETUPFILEXFER and DAT_SETUPFILEXFER2: where and in which format a file
// transfer writes the image.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "capabilities/Capabilities.h"
#include "ds/DSFileUtils.h"
#include "ds/DataSourceEngine.h"
#include "platform/Files.h"

namespace zentary {

using namespace twain;

namespace {

constexpr std::size_t kFileNameField = 1024;

std::optional<TW_UINT16> numberOf(const std::optional<CapabilityValue>& value)
{
    if (!value || !value->isNumber()) return std::nullopt;
    return static_cast<TW_UINT16>(value->number());
}

// In a sticky folder anyone may write to (a shared /tmp), a file of another
// user at our name was planted there: it is left alone and refused, as the
// kernel's protected_regular rule refuses to create through it.
bool plantedInSharedFolder(const std::string& path, const struct stat& file)
{
    if (file.st_uid == geteuid()) return false;
    struct stat folder {};
    std::string parent = std::filesystem::path(path).parent_path().string();
    return stat(parent.empty() ? "." : parent.c_str(), &folder) == 0 && (folder.st_mode & S_ISVTX) &&
           (folder.st_mode & S_IWOTH);
}

// Setting a target empties an existing file or creates an empty one at
// once, so the client learns now, not after the scan, that it cannot be
// written. A symlink in place of the target is refused, not followed.
TW_UINT16 validateFile(const std::string& name)
{
    DSFileUtils::FileSpec spec = DSFileUtils::makeFSSpec(name);
    if (spec.result == DSFileUtils::kNoError) {
        files::UniqueFd fd(::open(spec.path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd) return TWCC_BADVALUE;
        struct stat info {};
        if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || plantedInSharedFolder(spec.path, info))
            return TWCC_BADVALUE;
        if (info.st_size > 0 && (ftruncate(fd.get(), 0) != 0 || fsync(fd.get()) != 0)) return TWCC_BADVALUE;
        return 0;
    }
    if (spec.result != DSFileUtils::kFileNotFound) return TWCC_BADVALUE;
    files::UniqueFd fd(::open(spec.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    return fd ? 0 : TWCC_BADVALUE;
}

// Stores the record's name, as the client wrote it, in one of our 1026-byte
// buffers: text up to its NUL, or UTF-16 up to its NUL.
void storeName(char* buffer, const TW_SETUPFILEXFER2& file)
{
    std::memset(buffer, 0, DataSourceEngine::kFileNameBufferSize);
    const auto* from = static_cast<const char*>(file.FileName);
    if (file.FileNameType == TWTY_UNI512) {
        for (std::size_t i = 0; i + 1 < kFileNameField; i += 2) {
            std::memcpy(buffer + i, from + i, 2);
            if (buffer[i] == 0 && buffer[i + 1] == 0) break;
        }
    } else {
        std::memcpy(buffer, from, strnlen(from, kFileNameField - 1));
    }
}

}  // namespace

TW_UINT16 DataSourceEngine::setupFileTransfer(TW_UINT16 type, TW_UINT16 message, TW_MEMREF info,
                                              TW_UINT16* conditionCode)
{
    auto finish = [conditionCode](TW_UINT16 code) {
        if (code == 0) return TWRC_SUCCESS;
        if (conditionCode) *conditionCode = code;
        return TWRC_FAILURE;
    };
    if (!info) return finish(TWCC_BADVALUE);
    if (mState == kStateTransferring) return finish(TWCC_SEQERROR);
    bool longForm = type == DAT_SETUPFILEXFER2;
    auto fill = [&](const TW_SETUPFILEXFER2& file, TW_UINT16 format, bool check) {
        return longForm ? fillTwainFileTransfer2(*static_cast<TW_SETUPFILEXFER2*>(info), file, format, check)
                        : fillTwainFileTransfer(*static_cast<TW_SETUPFILEXFER*>(info), file, format, check);
    };

    switch (message) {
    case MSG_GET: {
        std::optional<TW_UINT16> format = numberOf(mCapabilities->currentValue(ICAP_IMAGEFILEFORMAT));
        if (!format) return finish(TWCC_BUMMER);
        return finish(fill(mFile, *format, !mFileIsSet));
    }
    case MSG_GETDEFAULT: {
        std::optional<TW_UINT16> format = numberOf(mCapabilities->defaultValue(ICAP_IMAGEFILEFORMAT));
        if (!format) return finish(TWCC_BUMMER);
        return finish(fill(mDefaultFile, *format, true));
    }
    case MSG_SET: {
        std::optional<TW_UINT16> mechanism = numberOf(mCapabilities->currentValue(ICAP_XFERMECH));
        if (!mechanism) return finish(TWCC_BUMMER);
        // The client chose another transfer mechanism: setting a file target
        // now is out of sequence.
        if (*mechanism != (longForm ? TWSX_FILE2 : TWSX_FILE)) return finish(TWCC_SEQERROR);
        return finish(longForm ? setFileTransferFromTwain2(*static_cast<TW_SETUPFILEXFER2*>(info), ICAP_IMAGEFILEFORMAT)
                               : setFileTransferFromTwain(*static_cast<TW_SETUPFILEXFER*>(info), ICAP_IMAGEFILEFORMAT));
    }
    case MSG_RESET: {
        if (mState != kStateOpen) return finish(TWCC_SEQERROR);
        std::optional<CapabilityValue> format = mCapabilities->defaultValue(ICAP_IMAGEFILEFORMAT);
        std::optional<TW_UINT16> number = numberOf(format);
        if (!number) return finish(TWCC_BUMMER);
        if (TW_UINT16 code = mCapabilities->setCurrentValue(ICAP_IMAGEFILEFORMAT, *format)) return finish(code);
        resetFileTransferUsingFormat(std::nullopt);
        return finish(fill(mDefaultFile, *number, true));
    }
    default:
        return finish(TWCC_BADPROTOCOL);
    }
}

TW_UINT16 DataSourceEngine::fillTwainFileTransfer2(TW_SETUPFILEXFER2& out, const TW_SETUPFILEXFER2& file,
                                                   TW_UINT16 format, bool checkExistence)
{
    if (!out.FileName) return TWCC_BADVALUE;
    TW_INT16 volume = file.VRefNum;
    TW_UINT32 parent = file.ParID;
    DSFileUtils::FileSpec spec = DSFileUtils::makeFSSpec(file);
    if (checkExistence) {
        if (spec.result == DSFileUtils::kFileNotFound)
            volume = 0, parent = 0;
        else if (spec.result != DSFileUtils::kNoError)
            return TWCC_BUMMER;
    }
    // An absolute path needs no volume or directory to be found.
    std::optional<std::string> name = DSFileUtils::fileNameText(file);
    if (name && !name->empty() && name->front() == '/') volume = 0, parent = 0;
    storeName(static_cast<char*>(out.FileName), file);
    out.FileNameType = file.FileNameType;
    out.Format = format;
    out.VRefNum = volume;
    out.ParID = parent;
    return 0;
}

TW_UINT16 DataSourceEngine::fillTwainFileTransfer(TW_SETUPFILEXFER& out, const TW_SETUPFILEXFER2& file,
                                                  TW_UINT16 format, bool checkExistence)
{
    DSFileUtils::FileSpec spec = DSFileUtils::makeFSSpec(file);
    if (spec.result != DSFileUtils::kNoError && spec.result != DSFileUtils::kFileNotFound) return TWCC_BUMMER;
    // The short form has no directory: it reports the full path, which,
    // being absolute, needs no volume either.
    if (spec.path.size() >= sizeof(out.FileName)) return TWCC_BUMMER;
    (void)checkExistence;
    std::memset(out.FileName, 0, sizeof(out.FileName));
    std::memcpy(out.FileName, spec.path.data(), spec.path.size());
    out.VRefNum = 0;
    out.Format = format;
    return 0;
}

std::optional<TW_UINT16> DataSourceEngine::validateFileFormat(TW_UINT16 format, TW_UINT16 formatCapability,
                                                              TW_UINT16* conditionCode)
{
    TW_UINT16 result = mCapabilities->setCurrentValue(formatCapability, CapabilityValue(format));
    if (result == 0) {
        *conditionCode = 0;
        return format;
    }
    if (result == TWCC_LOWMEMORY) {
        *conditionCode = TWCC_LOWMEMORY;
        return std::nullopt;
    }
    // A format the scanner cannot write: fall back to the default and say so.
    std::optional<CapabilityValue> fallback = mCapabilities->defaultValue(formatCapability);
    std::optional<TW_UINT16> number = numberOf(fallback);
    if (!number) {
        *conditionCode = TWCC_LOWMEMORY;
        return std::nullopt;
    }
    result = mCapabilities->setCurrentValue(formatCapability, *fallback);
    if (result != 0) {
        *conditionCode = result == TWCC_LOWMEMORY ? TWCC_LOWMEMORY : TWCC_BADVALUE;
        return std::nullopt;
    }
    *conditionCode = TWCC_BADVALUE;
    return number;
}

TW_UINT16 DataSourceEngine::setFileTransferFromTwain2(const TW_SETUPFILEXFER2& file, TW_UINT16 formatCapability)
{
    TW_UINT16 code = 0;
    std::optional<TW_UINT16> format = validateFileFormat(file.Format, formatCapability, &code);
    if (!format) {
        resetFileTransferUsingFormat(std::nullopt);
        return code;
    }
    mFileFormatType = formatCapability;
    std::optional<std::string> name = DSFileUtils::fileNameText(file);
    if (!name || name->empty()) {
        resetFileTransferUsingFormat(format);
        return TWCC_BADVALUE;
    }
    if (TW_UINT16 fileCode = validateFile(*name)) {
        resetFileTransferUsingFormat(fileCode == TWCC_BADVALUE ? format : std::nullopt);
        return fileCode;
    }
    storeName(mFileName.get(), file);
    mFile.FileNameType = file.FileNameType == TWTY_UNI512 ? TWTY_UNI512 : TWTY_STR1024;
    mFile.Format = *format;
    mFile.VRefNum = file.VRefNum;
    mFile.ParID = file.ParID;
    mFileIsSet = true;
    return code;
}

TW_UINT16 DataSourceEngine::setFileTransferFromTwain(const TW_SETUPFILEXFER& file, TW_UINT16 formatCapability)
{
    // The short form is the long one without a directory; a name with no
    // terminator in its field counts as no name at all.
    char name[kFileNameBufferSize] = {};
    std::size_t length = strnlen(file.FileName, sizeof(file.FileName));
    if (length < sizeof(file.FileName)) std::memcpy(name, file.FileName, length);
    TW_SETUPFILEXFER2 longForm{name, TWTY_STR1024, file.Format, file.VRefNum, 0};
    return setFileTransferFromTwain2(longForm, formatCapability);
}

void DataSourceEngine::resetFileTransferUsingFormat(std::optional<TW_UINT16> format)
{
    std::memcpy(mFileName.get(), mDefaultFileName.get(), kFileNameBufferSize);
    mFile.FileNameType = mDefaultFile.FileNameType;
    mFile.VRefNum = mDefaultFile.VRefNum;
    mFile.ParID = mDefaultFile.ParID;
    if (format) {
        mFile.Format = *format;
    } else {
        mFile.Format = mDefaultFile.Format;
        mFileFormatType = ICAP_IMAGEFILEFORMAT;
    }
    mFileIsSet = false;
}

}  // namespace zentary
