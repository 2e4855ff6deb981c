// `zelvctl run`: the daemon as one process that a container, an init or a shell can hold on to.
//
// The daemon detaches: the process that is started ends at once, and its child goes on. So the supervisor has itself
// made the one to whom orphans fall (a subreaper), and finds the daemon among its children by its name. Whoever else
// the scripts leave behind falls to it too, and is collected.
#pragma once

#include <string>
#include <vector>

constexpr int kStopLimitMs = 30000;

// Starts `program` with `arguments` and stays until the daemon has ended; SIGHUP, SIGINT and SIGTERM are passed on, and
// SIGQUIT as SIGTERM. A daemon that has not ended stop_limit_ms after it was told to is killed. Returns when it ended,
// in order, because it was asked to through here. Throws Failure(Exit::unreachable) when it could not be started, ended
// by itself, or was killed. Once a process, on its only thread: signals stay blocked afterwards.
void supervise(const std::string& program, const std::vector<std::string>& arguments, int stop_limit_ms = kStopLimitMs);
