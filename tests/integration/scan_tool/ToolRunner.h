// Runs zentary-scan (or a SANE frontend) as a user does, one process per
// case; what it wrote is decoded by the transfer tests' readers, which share
// no code with it.
#pragma once

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "integration/transfers/ChartImages.h"

namespace zentary::test {

struct ToolRun {
    int exitCode = -1;  // 128 + signal when killed
    std::string out;
    std::string err;
};

// Signals for the tool, each sent `delayMs` after `after` first shows on its
// stderr (the phase it announces), while it runs.
struct Signals {
    std::string after;
    std::vector<std::pair<int, int>> sent;  // {delayMs, signal}
};

// Runs `program` in `dir` with `args`; `env` entries NAME=VALUE are added.
// `wrapper` is a command line the program's own is appended to (it must exec it).
ToolRun runProgram(const std::string& program, const std::filesystem::path& dir, const std::vector<std::string>& args,
                   const std::vector<std::string>& env = {}, const Signals& signals = {},
                   const std::vector<std::string>& wrapper = {});

// runProgram() of the zentary-scan under test.
ToolRun runTool(const std::filesystem::path& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& env = {}, const Signals& signals = {},
                const std::vector<std::string>& wrapper = {});

// Entries of `dir` other than those named in `keep`: what a failed run left behind.
std::vector<std::string> strayFiles(const std::filesystem::path& dir, const std::vector<std::string>& keep = {});

}  // namespace zentary::test
