// The copy's side of a trial: what makes the copy harmless, and what it reports. script/reload_trial.cpp reads that.
#pragma once

#include <sys/types.h>

#include <cstdint>

class ManagerScript;

// The copy writes records into a pipe: this head, then `size` bytes of text. A head and its text are one write, no
// longer than what a pipe takes as a whole, so that a signal handler may write one in the middle of others; a longer
// text comes in pieces.
struct TrialRecord {
  enum class Kind : uint8_t {
    log,     // lines of the log, of that level
    place,   // where the script was when its time was over: FILE, or FILE:LINE
    fault,   // what went wrong
    failed,  // the last record, like `passed`; no text
    passed,
  };
  Kind kind;
  int32_t level;
  uint32_t size;
};

constexpr int kTrialRecordMost = 4096;  // bytes, with the head: PIPE_BUF

struct Trial {
  const char* script_path;
  const char* external_path;
  int limit_ms;  // until scripts get errors
  pid_t daemon;
  int pipe;  // where the records go
};

// In the forked child: reloads, reports, and ends the process without a word to anybody else. The caller has the Lua
// state; no other thread runs in a forked child.
[[noreturn]] void run_trial(ManagerScript& script, const Trial& trial);
