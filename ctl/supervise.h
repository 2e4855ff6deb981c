// `zelvctl run`: the daemon as one process that a container, an init or a shell can supervise.
//
// The daemon detaches: the process that is started ends at once, and its child goes on. So the supervisor makes itself
// a subreaper, which becomes the parent of orphans, and finds the daemon among its children by its name. It collects
// other orphans too, which scripts may leave behind.
#pragma once

#include <string>
#include <vector>

constexpr int kStopLimitMs = 30000;

// Starts `program` with `arguments` and stays until the daemon has ended. Passes on SIGHUP, SIGINT and SIGTERM, and
// SIGQUIT as SIGTERM; kills a daemon that has not ended stop_limit_ms after it was told to. Returns when the daemon was
// told to end by one of these signals and did so with status 0. Throws Failure(Exit::unreachable) when the daemon could
// not be started, ended by itself or with another status, or was killed. Call it once, on the process' only thread:
// signals stay blocked afterwards.
void supervise(const std::string& program, const std::vector<std::string>& arguments, int stop_limit_ms = kStopLimitMs);
