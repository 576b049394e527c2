// A cross-thread call with a time limit. Like zentary::callOn it keeps the
// caller's own loop serving while it waits, but it gives up after `bound`:
// nothing in the scanner library may wait forever on another thread. `fn`
// must own what it touches (capture by value): after a time-out it may still
// run later.
#pragma once

#include "platform/RunLoop.h"

#include <chrono>
#include <functional>

namespace zentary {

// True when `fn` has run (inline when the caller already is the target's thread).
bool callWithin(RunLoop& target, std::chrono::milliseconds bound, std::function<void()> fn);

}  // namespace zentary
