// What the system tells about a process of this machine, in /proc.
#pragma once

#include <sys/types.h>
#include <ctime>
#include <optional>
#include <string>

struct ProcessEntry {
  std::string name;       // of its program; the system cuts it after 15 bytes
  char state;             // as ps(1) shows it: Z for a process that has ended and was not collected
  pid_t parent;           // process id
  long long start_ticks;  // when it started, since the start of the machine, in ticks of sysconf(_SC_CLK_TCK)

  bool has_ended() const { return state == 'Z' || state == 'X'; }
};

// The entry of process `pid`; nothing when there is no such process, or only its user is told.
std::optional<ProcessEntry> process_entry(pid_t pid);

// The name that a process of the program in file `path` has.
std::string process_name(const std::string& path);

// "the daemon (process 12)", for messages.
std::string daemon_text(pid_t pid);

// "/proc/PID/ENTRY".
std::string proc_path(pid_t pid, const char* entry);

// The program that process `pid` runs, "PATH (deleted)" when its file was replaced. Empty when the system does not
// tell.
std::string exe_of(pid_t pid);

// The value of `name` in the environment that process `pid` was started with, empty when it has none; nothing when the
// system does not tell.
std::optional<std::string> environment_of(pid_t pid, const std::string& name);

// When process `pid` started, in seconds of the wall clock, which may have been set since; 0 when the system does not
// tell.
double start_of(pid_t pid);

// A time of the system's in seconds.
inline double seconds_of(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}
