// The log's lines on standard error or in a file.
#pragma once

#include <string>

#include "device/host/log_patience.h"
#include "util/quiet_write.h"

// Plain memory without a destructor. Not thread-safe: LogTarget guards it.
class LogStream {
 public:
  // Opens the file `path`, to append to it. Returns false, with errno set, when that fails.
  bool open(const char* path);

  // Returns false, with errno set, when it is a terminal that cannot be written without waiting.
  bool use_standard_error();

  void close();
  bool is_open() const { return output.descriptor() >= 0; }

  // Writes `text`, whole lines. Returns false when not all of it was taken; the next text then begins on a line of
  // its own. Waits for a reader as long as `patience` allows; once that was not enough, not at all until a line is
  // taken at once.
  bool write(std::string text, LogPatience& patience);

 private:
  QuietOutput output;
  bool is_torn = false;     // the last line has no end
  bool is_stalled = false;  // nobody reads
};
