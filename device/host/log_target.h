// Where log lines go: ELOG_TARGET is "stderr", "file:PATH" (appended) or "syslog". Without it, and for set-uid
// programs, they go to syslog, and to standard error as well when that is a terminal. A target that is not understood
// or fails to open is reported once on standard error, and syslog is used.
//
// Lines of level 1 are also kept for a supervisor that wants them (device/last_lines.h).
//
// One object for the process, plain memory without a destructor: the last line may come after everything else is gone.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "device/counts.h"
#include "util/mutex.h"

class LogTarget {
 public:
  // (Re)opens the target for program `name` and the syslog facility with number `facility`. Any thread.
  void open(int facility, const char* name);

  // Writes `lines`, whole lines of safe text, in one piece: when `framed`, with time, program, process id and level in
  // front of the first. Opens the target first when nobody has done so. Any thread. What cannot be written is lost.
  void write(int level, bool framed, std::string_view lines);

  // From now on write() gives the lines to `take`, under the lock and without a frame. Any thread.
  void divert(void (*take)(int level, const char* lines, size_t size));

  // Hold the lock from before a fork until after it, in parent and child, so that the child can write. It also keeps
  // other threads out of the C library's own locks, of the time zone and of syslog, at that moment.
  void before_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.lock(); }
  void after_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.unlock(); }

  // Counts a message that was lost before it came here. Any thread.
  void count_lost() { lost.fetch_add(1, std::memory_order_relaxed); }

  // Any thread; without the lock, which is held while a line is written.
  log_counts counts() const { return {written.load(std::memory_order_relaxed), lost.load(std::memory_order_relaxed)}; }

 private:
  void open_held(int facility, const char* name) REQUIRES(mutex);
  void choose() REQUIRES(mutex);
  void find_last_lines() REQUIRES(mutex);
  bool open_file(const char* path) REQUIRES(mutex);
  void keep_last(std::string_view lines) REQUIRES(mutex);
  bool write_stream(int level, bool framed, std::string_view lines) REQUIRES(mutex);
  void write_syslog(int level, std::string_view lines) const REQUIRES(mutex);

  Mutex mutex;  // also keeps the lines of the threads apart
  void (*diverted)(int level, const char* lines, size_t size) GUARDED_BY(mutex) = nullptr;
  bool is_open GUARDED_BY(mutex) = false;
  bool complained GUARDED_BY(mutex) = false;
  int fd GUARDED_BY(mutex) = -1;  // of standard error or of the file; -1: neither
  bool is_regular_file GUARDED_BY(mutex) = false;
  bool to_syslog GUARDED_BY(mutex) = false;
  int last_lines GUARDED_BY(mutex) = -1;  // descriptor of the supervisor's file, or -1
  unsigned last_number GUARDED_BY(mutex) = 0;
  bool low_numbers_free GUARDED_BY(mutex) = false;  // 0, 1 or 2 was closed when syslog was opened
  char program[64] GUARDED_BY(mutex) = "";          // syslog keeps a pointer to it

  std::atomic<uint64_t> written{0};  // messages that a target took,
  std::atomic<uint64_t> lost{0};     // and those that none took
};
