#include "ToolRunner.h"

#include "support/TestEnvironment.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace zentary::test {

ToolRun runTool(const std::filesystem::path& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& env, const Signals& signals, const std::vector<std::string>& wrapper)
{
    const char* tool = std::getenv("ZENTARY_SCAN_TOOL");
    if (tool) return runProgram(tool, dir, args, env, signals, wrapper);
    ToolRun run;
    run.err = "ZENTARY_SCAN_TOOL is not set";
    return run;
}

ToolRun runProgram(const std::string& tool, const std::filesystem::path& dir, const std::vector<std::string>& args,
                   const std::vector<std::string>& env, const Signals& signals, const std::vector<std::string>& wrapper)
{
    ToolRun run;
    std::string outPath = (std::filesystem::temp_directory_path() / ("zst-out-" + std::to_string(getpid()))).string();
    // stderr comes through a pipe, so that signals can follow the phases it announces.
    int err[2];
    if (pipe2(err, O_CLOEXEC) != 0) return run;
    std::vector<std::string> command = wrapper;
    command.push_back(tool);
    command.insert(command.end(), args.begin(), args.end());
    pid_t child = fork();
    if (child == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        // Never a terminal on stdin: the tool must not stop to ask.
        int in = open("/dev/null", O_RDONLY);
        if (in < 0 || out < 0 || chdir(dir.c_str()) != 0) _exit(127);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err[1], 2);
        for (const std::string& entry : env) putenv(const_cast<char*>(entry.c_str()));
        std::vector<char*> argv;
        for (const std::string& arg : command) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(err[1]);
    auto readSome = [&run, fd = err[0]] {
        char buffer[4096];
        ssize_t n;
        while ((n = read(fd, buffer, sizeof buffer)) < 0 && errno == EINTR) {
        }
        if (n > 0) run.err.append(buffer, std::size_t(n));
        return n > 0;
    };
    // The phases' announcements are short: the pipe holds what comes meanwhile.
    if (!signals.after.empty()) {
        while (run.err.find(signals.after) == std::string::npos && readSome()) {
        }
        int elapsed = 0;
        for (auto [delay, signal] : signals.sent) {
            std::this_thread::sleep_for(std::chrono::milliseconds(delay - elapsed));
            elapsed = delay;
            kill(child, signal);  // not yet reaped: never another process
        }
    }
    while (readSome()) {
    }
    close(err[0]);
    int status = 0;
    waitpid(child, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = readFile(outPath);
    std::filesystem::remove(outPath);
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
