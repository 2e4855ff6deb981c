// For a log line that strangers can provoke: at most one a second, which then tells how many were left out.
#pragma once

#include <cstdint>

// How such a line ends: " (and 5 more)" when lines were left out since the last one, else nothing.
struct LeftOut {
  char text[40] = "";
};

// Plain memory without a destructor. Not shared between threads: its owner's lock guards it, if it has one.
class RateLimit {
 public:
  // Asks for a line at `now_seconds` of a steady clock. True: it may be written, with left_out.text at its end. False:
  // it is counted as left out.
  bool allow(int64_t now_seconds, LeftOut& left_out);

 private:
  int64_t last_second = INT64_MIN;  // of the last line allowed
  int refused = 0;
};
