// `zelvctl reload`: has a running daemon load its scripts again, in a way that cannot take it down by a typing error:
// a script that does not compile never reaches it. One that fails while it runs still ends the daemon, as at a start.
#pragma once

#include <cstdio>
#include <string>

struct ReloadRequest {
  std::string root;      // DEVICE_ROOT, or empty
  std::string pid_file;  // of the daemon; empty: the one that owns the event socket
  bool strict;           // warnings count as faults
};

// Checks the scripts, sends SIGHUP, and waits until the daemon has done a reload that began after that. Faults,
// warnings and the verdict go to `out`. Throws Failure(Exit::unreachable) when there are faults (the daemon has heard
// nothing then), when no daemon runs, when it ended over the reload, when it has not finished it within 60 s, and when
// it does not tell.
void reload(const ReloadRequest& request, FILE* out);

// Reloads whenever a script file of the configured folders changes, until the daemon has gone: then throws
// Failure(Exit::unreachable). What else goes wrong is written, and the next change is waited for.
void reload_at_changes(const ReloadRequest& request, FILE* out);
