// Temporary directories, environment overrides and file helpers for the platform tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace zentary::test {

class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "zentary-test-XXXXXX").string();
        if (::mkdtemp(pattern.data())) mPath = pattern;
    }
    ~TempDir()
    {
        std::error_code ec;
        std::filesystem::permissions(mPath, std::filesystem::perms::owner_all, ec);
        std::filesystem::remove_all(mPath, ec);
    }
    const std::filesystem::path& path() const { return mPath; }

private:
    std::filesystem::path mPath;
};

// Sets (or, with nullopt, unsets) an environment variable for a scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::optional<std::string>& value) : mName(name)
    {
        if (const char* old = std::getenv(name)) mOld = old;
        value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { mOld ? ::setenv(mName.c_str(), mOld->c_str(), 1) : ::unsetenv(mName.c_str()); }

private:
    std::string mName;
    std::optional<std::string> mOld;
};

inline void writeFile(const std::filesystem::path& path, const std::string& bytes)
{
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string readFile(const std::filesystem::path& path)
{
    std::stringstream buffer;
    buffer << std::ifstream(path, std::ios::binary).rdbuf();
    return buffer.str();
}

inline std::string xmlPlist(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + body + "\n</plist>\n";
}

}  // namespace zentary::test
