// The trial of a reload: the whole reload, first in a forked copy of the daemon. A script that fails, hangs or ends its
// process does so there, and the daemon goes on with the scripts that it has.
//
// The copy has the very state that the reload would meet. What it must not do is act for the daemon: so it lets go of
// all descriptors, its log lines come back through a pipe, the scripts' functions that change the world outside are
// left out (trial_guards.h), and it leaves without any exit handler. The event loop is held up for the fork alone.
#pragma once

#include <cstdint>
#include <string>

class ManagerScript;

constexpr int kTrialLimitMs = 10000;

struct TrialVerdict {
  bool passed = false;
  std::string text;     // what went wrong: a line, then those of a traceback
  int64_t held_us = 0;  // how long the event loop could not have the Lua state
};

// Tries ManagerScript::reload with these arguments. Scripts that have not returned after `limit_ms` have failed; the
// copy is ended at most a second later. Want of memory is a failed trial. Signals are handled meanwhile, and a stop
// that is wanted ends the trial as failed. Writes what the scripts log in it at level 2 or above. Leaves no process
// behind. Main thread.
TrialVerdict try_reload(ManagerScript& script, const char* script_path, const char* external_path,
                        int limit_ms = kTrialLimitMs);
