// Runs zentary-scan as a user does, one process per case; what it wrote is
// decoded by the transfer tests' readers, which share no code with it.
#pragma once

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "integration/transfers/ChartImages.h"

namespace zentary::test {

struct ToolRun {
    int exitCode = -1;  // 128 + signal when killed
    std::string out;
    std::string err;
};

// Runs the tool in `dir` with `args`; `env` entries NAME=VALUE are added.
// With `interruptAfterMs` > 0 the tool gets SIGINT that long after start.
ToolRun runTool(const std::filesystem::path& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& env = {}, int interruptAfterMs = 0);

// Entries of `dir` other than those named in `keep`: what a failed run left behind.
std::vector<std::string> strayFiles(const std::filesystem::path& dir, const std::vector<std::string>& keep = {});

}  // namespace zentary::test
