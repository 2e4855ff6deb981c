// The device's event queue, as the daemon sees it. The embedded default is device/host/event_queue.cpp; how events get
// into it is described in docs/events.md.
#pragma once

#include <cstdint>

struct lua_State;

constexpr int EVENT_TYPE_QUIT = 9999;  // asks the event loop to end; no other type code means anything to the daemon

extern "C" {

// One event. The daemon reads it and never writes into it. A queue library may append fields of its own.
struct event_item {
  int32_t type;
  int32_t timestamp[2];  // the embedded default: wall clock, seconds and microseconds
  char type_name[128];   // zero-terminated
  const char* info;      // "name=value" items joined by "&", zero-terminated, never null
};

// Waits at most timeout_ms (0 to 1000) for the next event. Null: none came in time, or the wait was interrupted. The
// record is the caller's until event_item_free. Script thread only.
event_item* event_dequeue(int timeout_ms);

// Lets the queue tidy up; the idle loop calls it, at most every 31 s. Script thread only. The embedded default returns
// memory to the system and logs how many lines and events it has dropped or refused since the last call.
void event_arrange();

// Releases a record of event_dequeue, exactly once. Script thread only.
void event_item_free(event_item* item);

// Opens the queue and adds its own functions to a fresh Lua state. Main thread, before the script thread starts.
// Negative: failed (logged). The embedded default adds event_post(type, name [, info]), which returns true, or false
// and a reason; when it has no socket for other processes, it logs that and goes on.
int helper_init(lua_State* L);

// Closes the queue, after the Lua state. Main thread, after the script thread has been joined.
void helper_cleanup();
}
