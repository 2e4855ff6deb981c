// The clocks: the wall clock as scripts and the coroutine scheduler count it, and a steady one for deadlines.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

// 2024-01-01, seconds since 1970. A wall clock before that was never set.
constexpr int64_t kClockIsSet = 1704067200;

// What now_ms returns when the wall clock reads `seconds` and `microseconds`.
inline int clock_ms(int64_t seconds, int64_t microseconds) {
  return static_cast<int>(static_cast<uint32_t>(seconds * 1000 + microseconds / 1000));
}

// Milliseconds of the wall clock in 32 bits: wraps about every 49.7 days and may be negative. Compare two readings by
// their signed difference only (ms_between). Any thread.
inline int now_ms() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return clock_ms(now.tv_sec, now.tv_usec);
}

// `later` minus `earlier`, both readings of now_ms; correct across a wrap when they are less than 24.8 days apart.
inline int ms_between(int earlier, int later) {
  return static_cast<int>(static_cast<uint32_t>(later) - static_cast<uint32_t>(earlier));
}

// Nanoseconds of the monotonic clock, which nobody sets: for durations. Any thread.
inline int64_t steady_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// The same in milliseconds: for deadlines and time-outs.
inline int64_t steady_ms() {
  return steady_ns() / 1000000;
}

// The same clock as of the kernel's last tick, at most 10 ms ago, for a look that costs next to nothing. Any thread.
inline int64_t steady_tick_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}
