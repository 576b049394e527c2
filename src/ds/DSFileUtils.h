// TWAIN file records <-> paths.
//
// On Linux a file record's FileName is a POSIX path, absolute or relative to
// the client's working directory; its volume and directory ids are carried
// through as the client sent them. The file-manager results keep their
// meaning: kFileNotFound for a missing file in an existing directory,
// kNameNotConvertible for a name that cannot become a path.
#pragma once

#include <optional>
#include <string>

#include "twain/twain.h"

namespace zentary {

class DSFileUtils {
public:
    static constexpr int kNoError = 0;
    static constexpr int kFileNotFound = -43;
    static constexpr int kNameNotConvertible = -108;
    static constexpr int kDirectoryNotFound = -120;

    // The file a record names, as a path, with the file-manager result of
    // looking it up: kNoError (exists), kFileNotFound (does not, but its
    // directory does), kDirectoryNotFound, or kNameNotConvertible.
    struct FileSpec {
        std::string path;
        int result = kNameNotConvertible;
    };
    static FileSpec makeFSSpec(const TW_SETUPFILEXFER2& file);
    // The same for a plain name (a short-form record, or a name already
    // turned into text).
    static FileSpec makeFSSpec(const std::string& name);

    // The record's name as UTF-8 text: a NUL-terminated string within the
    // 1024 bytes of a TW_STR1024, or UTF-16 within the 512 units of a
    // TW_UNI512. Nothing when it does not convert.
    static std::optional<std::string> fileNameText(const TW_SETUPFILEXFER2& file);

    // Absolute form of `path` (relative paths are taken from the working
    // directory), or nothing when the working directory is unknown.
    static std::optional<std::string> fullPath(const std::string& path);
};

}  // namespace zentary
