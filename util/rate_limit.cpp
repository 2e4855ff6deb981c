#include "util/rate_limit.h"

#include <cstdio>

bool RateLimit::allow(int64_t now_seconds, LeftOut& left_out) {
  if (now_seconds == last_second) {
    ++refused;
    return false;
  }
  last_second = now_seconds;
  if (refused > 0) snprintf(left_out.text, sizeof(left_out.text), " (and %d more)", refused);
  refused = 0;
  return true;
}
