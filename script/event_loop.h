// The event loop: what the script thread runs.
#pragma once

class ManagerScript;

// Takes events from the queue until the script manager's `running` is cleared or the quit event comes. Forwards each to
// the listener and calls the Lua handlers of its type; in between, runs the timers and coroutines that are due. Script
// thread only; holds the Lua state only while it uses it.
void event_loop(ManagerScript& script);
