// Where log lines go, as ELOG_TARGET says: "stderr", "file:PATH" (appended) or "syslog". Without it, and for set-uid
// programs, syslog, and standard error as well when that is a terminal. A target that makes no sense or cannot be
// opened is said once on standard error and becomes syslog.
//
// One object for the process, plain memory without a destructor: the last line may come after everything else is gone.
#pragma once

#include <mutex>
#include <string_view>

class LogTarget {
 public:
  // (Re)opens the target for program `name` and the syslog facility with number `facility`. Any thread.
  void open(int facility, const char* name);

  // Writes `lines`, whole lines of safe text, in one piece: with time, program, process id and level in front of the
  // first, or as they are when `framed` is false. Opens the target first when nobody has done so. Any thread; what
  // cannot be written is lost.
  void write(int level, bool framed, std::string_view lines);

 private:
  void open_held(int number, const char* name);
  void choose();
  bool open_file(const char* path);
  void write_stream(int level, bool framed, std::string_view lines);
  void write_syslog(int level, std::string_view lines);

  std::mutex mutex;  // guards everything below, and keeps the lines of the threads apart
  bool is_open = false;
  bool complained = false;
  int fd = -1;  // of standard error or of the file; -1: neither
  bool is_regular_file = false;
  bool to_syslog = false;
  bool low_numbers_free = false;  // 0, 1 or 2 was closed when syslog was opened
  char program[64] = "";          // syslog keeps a pointer to it
};
