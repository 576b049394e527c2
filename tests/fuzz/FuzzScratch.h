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
    static const std::filesystem::path dir = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zentary-fuzz-XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(scratchDirectory(), ignored);
        });
        return std::filesystem::path(pattern);
    }();
    return dir;
}

}  // namespace zentary::fuzz
