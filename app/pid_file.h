// The daemon's pid file, which a shell writes.
#pragma once

#include <sys/types.h>

#include <string>

// Has a shell run "echo NUMBER > PATH"; the shell interprets `path` as its own language. An empty path means none. What
// goes wrong is said on standard error, by the shell or by us: the daemon runs without a pid file, too. A shell that
// does not end, since it waits for whoever reads the file or its own standard error, is killed after 10 s, or a second
// after SIGINT or SIGTERM. These two must be blocked, and stay pending. Main thread, before others start.
void write_pid_file(pid_t number, const std::string& path);
