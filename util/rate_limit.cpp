#include "util/rate_limit.h"

#include <cstdio>

std::optional<LeftOut> RateLimit::allow(int64_t now_seconds) {
  if (now_seconds == last_second) {
    ++refused;
    return {};
  }
  last_second = now_seconds;
  LeftOut left_out;
  if (refused > 0) snprintf(left_out.text, sizeof(left_out.text), " (and %d more)", refused);
  refused = 0;
  return left_out;
}
