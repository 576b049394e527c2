// Small helpers shared by the tests: a scratch directory, scoped environment
// variables, and writing and reading whole files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace zentary::test {

// A copy of a value, for fields of the 2-byte-packed TWAIN structures: the
// test macros take references, which such fields cannot give.
template <typename T>
T value(T field)
{
    return field;
}

// A fresh directory under the temporary folder, removed with its contents.
class ScratchDir {
public:
    ScratchDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "zentary-test-XXXXXX").string();
        mPath = mkdtemp(pattern.data()) ? std::filesystem::path(pattern) : std::filesystem::path();
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        // A test may have closed the directory to its owner.
        std::filesystem::permissions(mPath, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(mPath, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::filesystem::path& path() const { return mPath; }
    std::string file(const std::string& name) const { return (mPath / name).string(); }

private:
    std::filesystem::path mPath;
};

// Sets (or with nullopt unsets) an environment variable for a scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<std::string> value) : mName(name)
    {
        if (const char* old = std::getenv(name)) mOld = old;
        if (value)
            setenv(name, value->c_str(), 1);
        else
            unsetenv(name);
    }
    ~ScopedEnv()
    {
        if (mOld)
            setenv(mName.c_str(), mOld->c_str(), 1);
        else
            unsetenv(mName.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string mName;
    std::optional<std::string> mOld;
};

inline std::filesystem::path buildDir()
{
    const char* dir = std::getenv("ZENTARY_BUILD_DIR");
    return dir ? dir : ".";
}

inline std::filesystem::path dataSourcePath()
{
    return buildDir() / "twain/tarvell/ZentaryQ305.ds";
}

inline std::filesystem::path bundlePath()
{
    return buildDir() / "twain/tarvell/ZentaryQ305.bundle";
}

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

inline std::vector<std::string> readLines(const std::filesystem::path& file)
{
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// What a shell command writes to its standard output.
inline std::string commandOutput(const std::string& command)
{
    std::string text;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char buffer[4096];
    for (std::size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) text.append(buffer, n);
    return text;
}

// Threads of this process right now.
inline int threadCount()
{
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
}

}  // namespace zentary::test
