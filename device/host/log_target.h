// Where log lines go: ELOG_TARGET is "stderr", "file:PATH" (appended) or "syslog". Without it, and for set-uid
// programs, they go to syslog, and to standard error as well when that is a terminal. A target that is not understood
// or fails to open is reported once on standard error, and syslog is used. Standard error that is a terminal and cannot
// be opened anew (quiet_write.h) gets nothing: that is reported once to syslog.
//
// Whoever reads them cannot hold up the daemon for more than a second in ten (log_patience.h): what nobody takes is
// lost and counted, and told about where there is room again. Lines that repeat themselves are summed up
// (log_repeats.h).
//
// Lines of level 1 are also kept for a supervisor that wants them (device/last_lines.h).
//
// One object for the process, plain memory without a destructor: the last line may come after everything else is gone.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "device/counts.h"
#include "device/host/log_patience.h"
#include "device/host/log_repeats.h"
#include "device/host/log_stream.h"
#include "device/host/log_syslog.h"
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

  // Writes what is left to say about lines that were left out or lost. From now on none is left out. At the end of the
  // process; any thread.
  void finish();

  // Hold the lock from before a fork until after it, in parent and child, so that the child can write. It also keeps
  // other threads out of the C library's lock of the time zone at that moment.
  void before_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.lock(); }
  void after_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.unlock(); }
  void after_fork_in_child() ZELVIND_LOCK_RULE(no_thread_safety_analysis);

  // Counts a message that was lost before it came here. Any thread.
  void count_lost() { lost.fetch_add(1, std::memory_order_relaxed); }

  // Any thread; without the lock, which is held while a line is written.
  log_counts counts() const;

 private:
  void open_held(int facility, const char* name) REQUIRES(mutex);
  void choose(int facility) REQUIRES(mutex);
  void complain(const std::string& what) REQUIRES(mutex);
  void find_last_lines() REQUIRES(mutex);
  void keep_last(std::string_view lines) REQUIRES(mutex);
  bool leaves_out(int level, bool framed, std::string_view lines) REQUIRES(mutex);
  void sum_up(int64_t now_ms) REQUIRES(mutex);
  void say(LogRepeats::Summary& summary) REQUIRES(mutex);
  std::string frame(int level) REQUIRES(mutex);
  bool put(int level, bool framed, std::string_view lines) REQUIRES(mutex);
  bool told_stream_lost() REQUIRES(mutex);
  bool told_syslog_lost() REQUIRES(mutex);
  bool put_in_stream(int level, bool framed, std::string_view lines) REQUIRES(mutex);
  bool put_in_syslog(int level, std::string_view lines) REQUIRES(mutex);
  void set_clock() REQUIRES(mutex);
  static void* clock_main(void* target);
  int64_t tick();

  Mutex mutex;  // also keeps the lines of the threads apart
  void (*diverted)(int level, const char* lines, size_t size) GUARDED_BY(mutex) = nullptr;
  bool is_open GUARDED_BY(mutex) = false;
  bool complained GUARDED_BY(mutex) = false;
  LogPatience patience GUARDED_BY(mutex);
  LogStream stream GUARDED_BY(mutex);
  LogSyslog syslog GUARDED_BY(mutex);
  uint64_t stream_lost GUARDED_BY(mutex) = 0;  // lines that were lost there since it last said so
  uint64_t syslog_lost GUARDED_BY(mutex) = 0;
  LogRepeats* repeats GUARDED_BY(mutex) = nullptr;  // never freed; null: there was no memory for it
  bool is_finished GUARDED_BY(mutex) = false;
  int64_t clock_ms GUARDED_BY(mutex) = LogRepeats::kNever;  // until when a thread waits to sum up; kNever: none waits
  sem_t sooner{};                                           // ends that wait; made anew for each thread
  int last_lines GUARDED_BY(mutex) = -1;                    // descriptor of the supervisor's file, or -1
  unsigned last_number GUARDED_BY(mutex) = 0;
  char program[64] GUARDED_BY(mutex) = "";
  char date[32] GUARDED_BY(mutex) = "";  // of date_second, local time
  time_t date_second GUARDED_BY(mutex) = -1;

  std::atomic<uint64_t> written{0};   // messages that a target took,
  std::atomic<uint64_t> lost{0};      // those that none took,
  std::atomic<uint64_t> repeated{0};  // and those that were summed up
};
