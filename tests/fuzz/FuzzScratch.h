// One scratch folder for a fuzzer's whole run, in $TMPDIR (else /tmp), made
// on first use and removed when the process exits normally; the runner
// scripts remove what a crash leaves.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace zentary::fuzz {

inline const std::filesystem::path& scratchDirectory()
{
    // Never destroyed: the removal at exit runs after static destructors
    // of objects made later than its registration, and still needs the name.
    static const std::filesystem::path* const dir = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zentary-fuzz-XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        return new std::filesystem::path(pattern);
    }();
    static const bool removedAtExit = [] {
        return std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(*dir, ignored);
        }) == 0;
    }();
    (void)removedAtExit;
    return *dir;
}

}  // namespace zentary::fuzz
