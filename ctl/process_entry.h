// What the system tells everybody of a process.
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

struct ProcessEntry {
  std::string name;       // of its program, which the system cuts after 15 bytes
  char state;             // as ps(1) shows it: Z for one that has ended and not been collected
  pid_t parent;           // process id
  long long start_ticks;  // when it began, since the start of the machine, in ticks of sysconf(_SC_CLK_TCK)

  bool has_ended() const { return state == 'Z' || state == 'X'; }
};

// The entry of process `pid`; nothing when there is none, or the system tells only its user.
std::optional<ProcessEntry> process_entry(pid_t pid);

// The name that a process of the program in file `path` has.
std::string process_name(const std::string& path);
