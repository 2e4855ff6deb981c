// Calling the Lua handlers of an event's type, and how they read the event.
//
// The handlers of type N are in the global table "es_N", whose field list_func is a sequence of entries
// { tag, function, argument }. Scripts may put anything there: what is not an entry costs a log line and nothing else.
#pragma once

#include <lua.hpp>
#include <string>

#include "control/name_table.h"
#include "device/event_queue.h"

// Only the thread that has the Lua state.
class EventDispatch {
 public:
  // Calls the handlers of `event` in order, each under its entry's tag; a failing one is logged and the next one runs.
  // LoopStats::takes_event has been called for it.
  // Returns true when there is a handler table, false when the type is unknown (logged).
  bool dispatch(lua_State* L, const event_item& event);

  // Notes for those who look into the daemon that an event was handled from began_ns on (steady_ns), for run_ns, by
  // handlers of which `errors` failed.
  static void record(const event_item& event, int64_t began_ns, int64_t run_ns, int errors);

  // Forgets what belongs to a state that is closed.
  void clear() { *this = EventDispatch(); }

  // The event being dispatched, or null.
  const event_item* current_event() const { return current; }

  // The tag of the entry that runs, or the one that the entry has set since; empty between entries.
  const char* handler_tag() const { return entry_tag != nullptr ? entry_tag : set_tag.c_str(); }
  void set_handler_tag(const char* text) {
    set_tag = text;
    entry_tag = nullptr;
  }

 private:
  class Ending;

  bool call_handlers(lua_State* L);
  bool call_known(lua_State* L);
  bool find_and_call(lua_State* L);
  void keep_names(lua_State* L, const char* table_name);
  void call_entries(lua_State* L);
  void call_entry(lua_State* L, int index);
  static int call(lua_State* L, const char* text);
  void fail(const std::string& error) const;
  void clear_tag() { set_tag.clear(), entry_tag = nullptr; }

  const event_item* current = nullptr;
  const char* entry_tag = nullptr;  // on the Lua stack, as long as the entry's call lasts; null: set_tag counts
  std::string set_tag;
  // Registry references to the names that a dispatch looks up, 0 for none: by LoopStats::event_entry(), and
  // "list_func".
  int table_refs[NameTable::kEntries] = {};
  int list_ref = 0;
};

// The Lua functions that read the current event; script/script_api.cpp registers them. Outside a dispatch each raises
// "no event is being dispatched".
int evt_type_name(lua_State* L);
int evt_timestamp(lua_State* L);
int evt_info(lua_State* L);
int evt_field_int(lua_State* L);
int evt_field_str(lua_State* L);
int evt_field_str_safe(lua_State* L);
