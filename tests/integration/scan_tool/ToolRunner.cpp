#include "ToolRunner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace zentary::test {

namespace {

std::string slurp(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

ToolRun runTool(const std::filesystem::path& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& env, int interruptAfterMs)
{
    const char* tool = std::getenv("ZENTARY_SCAN_TOOL");
    ToolRun run;
    if (!tool) {
        run.err = "ZENTARY_SCAN_TOOL is not set";
        return run;
    }
    std::filesystem::path logs = std::filesystem::temp_directory_path();
    std::string outPath = (logs / ("zst-out-" + std::to_string(getpid()))).string();
    std::string errPath = (logs / ("zst-err-" + std::to_string(getpid()))).string();
    pid_t child = fork();
    if (child == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        // Never a terminal on stdin: the tool must not stop to ask.
        int in = open("/dev/null", O_RDONLY);
        if (in < 0 || out < 0 || err < 0 || chdir(dir.c_str()) != 0) _exit(127);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        for (const std::string& entry : env) putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> argv{const_cast<char*>(tool)};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(tool, argv.data());
        _exit(127);
    }
    if (interruptAfterMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(interruptAfterMs));
        kill(child, SIGINT);
    }
    int status = 0;
    waitpid(child, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = slurp(outPath);
    run.err = slurp(errPath);
    std::filesystem::remove(outPath);
    std::filesystem::remove(errPath);
    return run;
}

std::vector<std::string> strayFiles(const std::filesystem::path& dir, const std::vector<std::string>& keep)
{
    std::vector<std::string> stray;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::string name = entry.path().filename().string();
        bool kept = false;
        for (const std::string& k : keep) kept |= k == name;
        if (!kept) stray.push_back(name);
    }
    return stray;
}

}  // namespace zentary::test
