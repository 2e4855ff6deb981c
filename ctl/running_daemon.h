// The daemon as a process: where it is, and which state it reports.
//
// The owner of the event socket, or of the control socket, keeps the lock file beside the socket open, with its process
// id inside, as long as it lives. Others can see that the file is open; if they tried the lock, a daemon that starts at
// that moment would not get its socket.
#pragma once

#include <sys/types.h>
#include <optional>
#include <string>

#include "ctl/process.h"

struct DaemonState {
  std::string name;       // starting, ready, reloading, ended or stopping
  long long reloads = 0;  // completed since it started
};

class RunningDaemon {
 public:
  // The daemon that owns the event socket below `root`, or else the control socket. Nothing when none runs, or when
  // another user runs it and we may not read its lock files.
  static std::optional<RunningDaemon> find(const std::string& root);

  // The daemon that answers at the control socket below `root`: whoever may ask it need not see its files and process.
  // Throws as ControlClient does.
  static RunningDaemon answering(const std::string& root);

  // Throws Failure(Exit::unreachable) when we may not read a lock file that `find` looks at.
  static void fail_if_locks_hidden(const std::string& root);

  // The daemon whose process id is in `pid_file`. Throws Failure(Exit::unreachable) when there is none, or when it is
  // known to run below another root.
  static RunningDaemon from_pid_file(const std::string& pid_file, const std::string& root);

  pid_t process() const { return pid; }

  // "the daemon (process 12)", for messages.
  std::string text() const { return daemon_text(pid); }

  // The folder of its executable; installed_daemon_folder() when neither the system nor the daemon has told.
  std::string folder() const;

  // The state that it reports; nothing when it reports none, or has ended.
  std::optional<DaemonState> state() const;

  // True when `file` was changed after the daemon started. False when the clock was set back to before that change.
  bool is_older_than(const std::string& file) const;

  // False once it has ended.
  bool is_alive() const;

  // Throws Failure(Exit::unreachable) when it cannot be signalled.
  void send_signal(int number) const;

 private:
  RunningDaemon(pid_t process, std::string the_root, std::string exe)
      : pid(process), root(std::move(the_root)), told_exe(std::move(exe)) {}

  pid_t pid;
  std::string root;
  std::string told_exe;  // its executable in its own words; empty: it was not asked
};

// The state that process `pid` reports below `root`; nothing when the state there is not its own.
std::optional<DaemonState> reported_state(const std::string& root, pid_t pid);

// Throws Failure(Exit::unreachable) when process `pid` reports below `root` that its event loop has ended.
void fail_if_ended(const std::string& root, pid_t pid);

// Where the daemon's program and init_base.lua are installed: ../libexec/zelvind, seen from the folder of zelvctl, or
// that folder itself in a build tree.
std::string installed_daemon_folder();
