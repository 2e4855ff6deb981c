// The clocks that timers and coroutines live by. Tests put others in their place.
#pragma once

#include <ctime>

#include "util/clock.h"

struct ScriptClock {
  // Wall clock in seconds since the epoch: timers.
  int (*seconds)() = [] { return static_cast<int>(time(nullptr)); };
  // now_ms: coroutines and timems().
  int (*milliseconds)() = now_ms;
};
