// The event loop: what the script thread runs.
#pragma once

#include <list>

class ManagerScript;
struct ScriptCoroutine;

// Takes events from the queue until the script manager's `running` is cleared or the quit event comes, forwards each to
// the listener, and calls the Lua handlers of its type; in between it runs the timers and coroutines that are due.
// Script thread only; has the Lua state only while it works with it.
void event_loop(ManagerScript& script);

// How long the loop may wait for an event at clock reading `now`, in ms: until the first coroutine is due, 0 to 1000.
int next_wait_ms(std::list<ScriptCoroutine>& coroutines, int now);
