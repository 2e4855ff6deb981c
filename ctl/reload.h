// `zelvctl reload`: has a running daemon load its scripts again. A typing error cannot end the daemon, since a script
// that does not compile never reaches it. A script that fails while it runs still ends it, as at a start.
#pragma once

#include <cstdio>
#include <string>

struct ReloadRequest {
  std::string root;      // DEVICE_ROOT, or empty
  std::string pid_file;  // the daemon's; empty: of the daemon that owns the event socket
  bool strict;           // count warnings as faults
};

// Checks the scripts, sends SIGHUP, and waits until the daemon has completed a reload that began after that. Writes
// faults, warnings and the result to `out`. Throws Failure(Exit::unreachable) when there are faults (nothing was sent
// then), when no daemon runs, when it ends during the reload or takes longer than 60 s, and when it keeps no state.
void reload_scripts(const ReloadRequest& request, FILE* out);

// Reloads whenever a script file in the configured folders changes, until the daemon has gone: then it throws
// Failure(Exit::unreachable). Writes any other failure to `out` and waits for the next change.
void reload_at_changes(const ReloadRequest& request, FILE* out);
