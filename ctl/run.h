// `zelvctl run`: starts the daemon and stays in the foreground until it has ended.
#pragma once

#include <string>
#include <vector>

struct RunRequest {
  std::string root;                    // DEVICE_ROOT, or empty
  std::vector<std::string> arguments;  // of the daemon
  bool force;                          // also when a daemon runs below `root` already
};

// Supervises the installed daemon (ctl/supervise.h). When it has failed, writes its last lines of level 1 to standard
// error unless its log has gone there already, and how to make the settings when there are none. Throws
// Failure(Exit::unreachable) as supervise does, and when a daemon is already running, or may do so: a lock file may not
// be read. Once, on the process' only thread.
void run_daemon(const RunRequest& request);
