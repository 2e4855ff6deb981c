// The clocks: the wall clock as the scripts and the coroutine scheduler count it, and a steady one for deadlines.
#pragma once

#include <cstdint>

// Milliseconds of the wall clock in 32 bits: wraps about every 49.7 days and may be negative. Compare two readings by
// their signed difference only (ms_between). Any thread.
int now_ms();

// The arithmetic of now_ms for a wall clock of `seconds` and `microseconds`.
int clock_ms(int64_t seconds, int64_t microseconds);

// `later` minus `earlier`, both readings of now_ms, right across a wrap while they lie less than 24.8 days apart.
inline int ms_between(int earlier, int later) {
  return static_cast<int>(static_cast<uint32_t>(later) - static_cast<uint32_t>(earlier));
}

// Milliseconds of a clock that no one sets, for deadlines and silences. Any thread.
int64_t steady_ms();
