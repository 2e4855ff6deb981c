#include "util/rate_limit.h"

bool RateLimit::allow(int64_t now_seconds, int& left_out) {
  if (now_seconds == last_second) {
    ++refused;
    return false;
  }
  last_second = now_seconds;
  left_out = refused;
  refused = 0;
  return true;
}
