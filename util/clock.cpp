#include "util/clock.h"

#include <sys/time.h>

int clock_ms(int64_t seconds, int64_t microseconds) {
  return static_cast<int>(static_cast<uint32_t>(seconds * 1000 + microseconds / 1000));
}

int now_ms() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return clock_ms(now.tv_sec, now.tv_usec);
}
