#include "util/clock.h"

#include <sys/time.h>
#include <ctime>

int clock_ms(int64_t seconds, int64_t microseconds) {
  return static_cast<int>(static_cast<uint32_t>(seconds * 1000 + microseconds / 1000));
}

int now_ms() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return clock_ms(now.tv_sec, now.tv_usec);
}

int64_t steady_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}
