// `zelvctl reload`: has a running daemon load its scripts again. A faulty script cannot end the daemon: one that does
// not compile never reaches it, and one that fails while it runs does so in a copy of the daemon.
#pragma once

#include <cstdio>
#include <string>

struct ReloadRequest {
  std::string root;      // DEVICE_ROOT, or empty
  std::string pid_file;  // the daemon's; empty: the daemon that answers at the control socket
  bool strict;           // count warnings as faults
  bool no_trial;         // the reload is not tried first: a script that fails ends the daemon
};

// Checks the scripts, asks the daemon for a tried reload and waits for its verdict. With a pid file, and where the
// daemon has no control socket, sends SIGHUP instead and waits for a reload that began after that. Writes faults,
// warnings and the result to `out`. Throws Failure(Exit::unreachable) when there are faults (the daemon is not told
// then), when the trial finds one, when no daemon runs, when it ends during the reload or takes longer than 60 s, and
// when it was signalled and keeps no state.
void reload_scripts(const ReloadRequest& request, FILE* out);

// Reloads whenever a script file in the configured folders changes, until the daemon has gone: then it throws
// Failure(Exit::unreachable). Writes any other failure to `out` and waits for the next change.
void reload_at_changes(const ReloadRequest& request, FILE* out);
