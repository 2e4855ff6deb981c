// One event's way through the Lua handlers of its type.
//
// The handlers of type N stand in the global table "es_N", whose field list_func is a sequence of entries
// { tag, function, argument }. Scripts may put anything there: whatever it is, it costs a log line and nothing else.
#pragma once

#include "device/event_queue.h"

class ManagerScript;

// Calls the handlers of `event` in order, each with handler_tag set to its entry's tag; a failing one is logged and the
// next one runs. Returns true when there is a handler table, false when the type is unknown (logged). Script thread,
// which must have the Lua state.
bool dispatch_event(ManagerScript& script, const event_item& event);
