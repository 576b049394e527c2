// Descriptors and threads of this process, counted before the benchmarks and
// after them: a data source that leaves either behind in its client shows
// here. bench/run reads the line this prints to stderr.
#pragma once

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace zentary::bench {

inline long countEntries(const char* folder)
{
    std::error_code error;
    long count = 0;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) ++count;
    return error ? -1 : count;
}

struct ProcessResources {
    long fds = countEntries("/proc/self/fd");
    long threads = countEntries("/proc/self/task");
};

inline void reportResources(const ProcessResources& before)
{
    const ProcessResources after;
    std::fprintf(stderr, "zentary-resources fds %ld %ld threads %ld %ld\n", before.fds, after.fds, before.threads,
                 after.threads);
}

}  // namespace zentary::bench
