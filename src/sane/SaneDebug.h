// The backend's debug log, as every SANE backend keeps one: the level comes
// from SANE_DEBUG_ZENTARY (0..255, read at sane_init), messages go to stderr
// prefixed "[zentary] ". Levels as in sane-backends: 0 is printed whatever
// the level (a set-up that cannot work at all), 1 errors, 2 warnings,
// 3 information, 5 and up the exchanges with the frontend.
#pragma once

namespace zentary::sane {

enum DebugLevel { kDebugAlways = 0, kDebugError = 1, kDebugWarning = 2, kDebugInfo = 3, kDebugCalls = 5, kDebugData = 7 };

void initDebug();
bool debugEnabled(int level);
void debug(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace zentary::sane
