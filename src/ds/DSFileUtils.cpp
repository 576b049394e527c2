#include "ds/DSFileUtils.h"

#include "platform/StringsTable.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace zentary {

using namespace twain;

namespace {

// UTF-16 (host order, as a TW_UNI512 holds it) to UTF-8; nothing for a
// lone surrogate.
std::optional<std::string> utf16ToUtf8(const std::uint16_t* units, std::size_t count)
{
    std::string out;
    for (std::size_t i = 0; i < count && units[i]; ++i) {
        std::uint32_t cp = units[i];
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (i + 1 >= count || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) return std::nullopt;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[++i] - 0xDC00);
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return std::nullopt;
        }
        appendUtf8(out, cp);
    }
    return out;
}

}  // namespace

std::optional<std::string> DSFileUtils::fileNameText(const TW_SETUPFILEXFER2& file)
{
    if (!file.FileName) return std::nullopt;
    // Read up to the terminator only: the client's buffer may be shorter
    // than the field it stands for.
    if (file.FileNameType == TWTY_UNI512) {
        std::uint16_t units[512];
        const auto* from = static_cast<const unsigned char*>(file.FileName);
        std::size_t count = 0;
        for (; count < 512; ++count) {
            std::memcpy(&units[count], from + 2 * count, 2);
            if (units[count] == 0) break;
        }
        if (count == 512) return std::nullopt;
        return utf16ToUtf8(units, count);
    }
    const char* text = static_cast<const char*>(file.FileName);
    std::size_t length = strnlen(text, 1024);
    if (length == 1024) return std::nullopt;  // no terminator within the field
    return std::string(text, length);
}

std::optional<std::string> DSFileUtils::fullPath(const std::string& path)
{
    if (path.empty()) return std::nullopt;
    if (path.front() == '/') return path;
    std::error_code error;
    std::filesystem::path cwd = std::filesystem::current_path(error);
    if (error) return std::nullopt;
    return (cwd / path).string();
}

DSFileUtils::FileSpec DSFileUtils::makeFSSpec(const std::string& name)
{
    FileSpec spec;
    std::optional<std::string> path = fullPath(name);
    if (!path || path->back() == '/') return spec;
    spec.path = *path;
    struct stat info {};
    if (lstat(spec.path.c_str(), &info) == 0) {
        spec.result = kNoError;
        return spec;
    }
    std::string directory = std::filesystem::path(spec.path).parent_path().string();
    bool directoryExists = stat(directory.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    spec.result = directoryExists ? kFileNotFound : kDirectoryNotFound;
    return spec;
}

DSFileUtils::FileSpec DSFileUtils::makeFSSpec(const TW_SETUPFILEXFER2& file)
{
    std::optional<std::string> name = fileNameText(file);
    if (!name) return {};
    return makeFSSpec(*name);
}

}  // namespace zentary
