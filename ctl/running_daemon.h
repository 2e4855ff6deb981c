// The daemon as a process: where it is, and what it says of its state.
//
// The owner of the event socket has the lock file beside it open as long as it lives, with its process id inside. That
// it has can be seen from outside; trying the lock would keep a daemon that starts at that moment from its socket.
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

struct DaemonState {
  std::string name;   // starting, ready, reloading or stopping
  long long reloads;  // done since it started
};

class RunningDaemon {
 public:
  // The daemon that owns the event socket below `root`; nothing when none runs, or it is another user's and its
  // lock file not ours to read.
  static std::optional<RunningDaemon> find(const std::string& root);

  // The daemon whose process id stands in `pid_file`. Throws Failure(Exit::unreachable) when there is none, or it is
  // known to run below another root.
  static RunningDaemon from_pid_file(const std::string& pid_file, const std::string& root);

  pid_t process() const { return pid; }

  // The folder of its executable; installed_daemon_folder() when the system does not tell.
  std::string folder() const;

  // What it says of its state; nothing when it says nothing, or has ended.
  std::optional<DaemonState> state() const;

  // True when `file` has been changed since it started; not when the clock has been set back to before that change.
  bool is_older_than(const std::string& file) const;

  // False once it has ended.
  bool is_alive() const;

  // Throws Failure(Exit::unreachable) when it cannot be signalled.
  void send_signal(int number) const;

 private:
  RunningDaemon(pid_t process, std::string the_root) : pid(process), root(std::move(the_root)) {}

  pid_t pid;
  std::string root;
};

// Where the daemon's program and init_base.lua are installed: in ../libexec/zelvind as seen from zelvctl, or beside
// zelvctl in a build tree.
std::string installed_daemon_folder();
