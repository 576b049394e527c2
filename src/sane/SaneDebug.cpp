#include "sane/SaneDebug.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace zentary::sane {

namespace {

std::atomic<int> gLevel{0};

}  // namespace

void initDebug()
{
    const char* text = std::getenv("SANE_DEBUG_ZENTARY");
    if (!text || !*text) {
        gLevel = 0;
        return;
    }
    char* end = nullptr;
    long level = std::strtol(text, &end, 10);
    gLevel = *end ? 0 : int(level < 0 ? 0 : level > 255 ? 255 : level);
}

bool debugEnabled(int level)
{
    return level <= gLevel.load(std::memory_order_relaxed);
}

void debug(int level, const char* format, ...)
{
    if (!debugEnabled(level)) return;
    // One write per message, so lines of two threads do not interleave.
    char line[1024];
    int prefix = std::snprintf(line, sizeof line, "[zentary] ");
    va_list args;
    va_start(args, format);
    std::vsnprintf(line + prefix, sizeof line - std::size_t(prefix) - 1, format, args);
    va_end(args);
    std::fprintf(stderr, "%s\n", line);
}

}  // namespace zentary::sane
