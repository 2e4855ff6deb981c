#include "script/event_dispatch.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include "control/event_ring.h"
#include "control/loop_stats.h"
#include "device/counts.h"
#include "device/log.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

// Stack positions during a dispatch. Both tables stay there: a handler may replace or empty them.
constexpr int kTable = 1;
constexpr int kList = 2;
constexpr int kEntry = 3;

constexpr int kValueMax = 1024;  // bytes; a longer value counts as not found

using FieldValue = char[kValueMax + 1];

const event_item& dispatched_event() {
  const event_item* const event = g_mscript->dispatch.current_event();
  if (event == nullptr) throw ScriptError("no event is being dispatched");
  return *event;
}

bool find_field(const char* name, FieldValue& value) {
  char key[1024];
  const event_item& event = dispatched_event();
  const size_t length = strlen(name);
  if (length + 2 > sizeof(key)) return false;
  memcpy(key, name, length);  // not snprintf, which would cost more than the search
  memcpy(key + length, "=", 2);
  return query_field(event.info, key, value, kValueMax) >= 0;
}

const char* field_arg(lua_State* L, FieldValue& value) {
  const char* const name = text_arg(L, 1);
  if (!find_field(name, value)) throw ScriptError(sstr("not found field[%s]", name));
  return value;
}

// Unlike lua_tostring, neither allocates nor raises. `number` is room for a number's text.
const char* tag_text(lua_State* L, char (&number)[40]) {
  switch (lua_type(L, -1)) {
    case LUA_TSTRING:
      return lua_tostring(L, -1);
    case LUA_TNUMBER:
      snprintf(number, sizeof(number), LUA_NUMBER_FMT, lua_tonumber(L, -1));
      return number;
    default:
      return "";
  }
}

}  // namespace

// Raises nothing, as all that it calls. Throws std::bad_alloc: the tag and the error may be long.
void EventDispatch::call_entry(lua_State* L, int index) {
  const event_item& event = *current;
  lua_rawgeti(L, kList, index);
  if (!lua_istable(L, kEntry)) {
    elog(1, "mscript: error[etype:%d] - es_%s.list_func[%d] is a %s, not a table", event.type, event.type_name, index,
         luaL_typename(L, kEntry));
    return;
  }
  lua_rawgeti(L, kEntry, 1);
  char number[40];
  const char* const text = tag_text(L, number);
  entry_tag = text;
  lua_rawgeti(L, kEntry, 2);
  lua_rawgeti(L, kEntry, 3);
  if (call(L, text) != 0) fail(clua_error_text(L));
  clear_tag();
}

// Calls the function on the stack with the argument above it. The tag's text lies below both.
int EventDispatch::call(lua_State* L, const char* text) {
  const LoopCall counted(g_mscript->watch, Activity::handler, text);
  return lua_pcall(L, 1, 0, 0);
}

void EventDispatch::fail(const std::string& error) const {
  elog(1, "mscript: error[etype:%d] - %s", current->type, error.c_str());
  g_loop_stats.failed(handler_tag(), error.c_str());
}

void EventDispatch::record(const event_item& event, int64_t began_ns, int64_t run_ns, int errors) {
  int64_t waited_ns = 0;
  if (event_came_ns != nullptr) {
    waited_ns = began_ns - event_came_ns(&event);
    g_loop_stats.wait.add(waited_ns);
  }
  if (g_event_ring != nullptr) g_event_ring->add(event, waited_ns, run_ns, errors);
}

void EventDispatch::call_entries(lua_State* L) {
  const int count = static_cast<int>(lua_objlen(L, kList));  // what a handler appends waits for the next event
  for (int i = 1; i <= count; ++i) {
    try {
      call_entry(L, i);
    } catch (const std::bad_alloc&) {
      clear_tag();
      fail("no memory");  // short enough to need none
    }
    lua_settop(L, kList);
  }
}

// Looks the handlers up, which runs whatever metamethods scripts have put there. Returns false when there is no handler
// table.
bool EventDispatch::find_and_call(lua_State* L) {
  char name[3 + sizeof(event_item::type_name)] = "es_";
  copy_text(name + 3, sizeof(event_item::type_name), current->type_name);
  lua_getfield(L, LUA_GLOBALSINDEX, name);
  if (lua_isnil(L, kTable)) return false;
  if (!lua_istable(L, kTable) && lua_isuserdata(L, kTable) == 0) {
    throw ScriptError(sstr("%s is a %s, not a table", name, luaL_typename(L, kTable)));
  }
  lua_getfield(L, kTable, "list_func");
  if (lua_isnil(L, kList)) return true;
  if (!lua_istable(L, kList)) {
    throw ScriptError(sstr("%s.list_func is a %s, not a table", name, luaL_typename(L, kList)));
  }
  call_entries(L);
  lua_settop(L, 0);
  keep_names(L, name);
  return true;
}

// Keeps the two names in the registry, for call_known.
void EventDispatch::keep_names(lua_State* L, const char* table_name) {
  const int entry = g_loop_stats.event_entry();
  if (entry == NameTable::kOther || table_refs[entry] != 0) return;
  if (list_ref == 0) {
    lua_pushliteral(L, "list_func");
    list_ref = luaL_ref(L, LUA_REGISTRYINDEX);
  }
  lua_pushstring(L, table_name);
  table_refs[entry] = luaL_ref(L, LUA_REGISTRYINDEX);
}

// The short way, for types whose names are kept, as long as no metamethod is involved: raises nothing, so it needs no
// protected call around it, and interns no names. Returns false, with nothing done, when it is not possible.
bool EventDispatch::call_known(lua_State* L) {
  const int table_ref = table_refs[g_loop_stats.event_entry()];
  if (table_ref == 0) return false;
  lua_rawgeti(L, LUA_REGISTRYINDEX, table_ref);
  lua_rawget(L, LUA_GLOBALSINDEX);
  if (lua_istable(L, kTable)) {
    lua_rawgeti(L, LUA_REGISTRYINDEX, list_ref);
    lua_rawget(L, kTable);
    if (lua_istable(L, kList)) call_entries(L);
  }
  const bool done = lua_istable(L, kList);
  lua_settop(L, 0);
  return done;
}

// Ends a dispatch, also when memory for a log line runs out: nothing of it may meet the next one.
class EventDispatch::Ending {
 public:
  Ending(EventDispatch& the_dispatch, lua_State* L) : dispatch(the_dispatch), state(L) {}
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  ~Ending() {
    lua_settop(state, 0);
    dispatch.clear_tag();
    dispatch.current = nullptr;
  }

 private:
  EventDispatch& dispatch;
  lua_State* const state;
};

bool EventDispatch::call_handlers(lua_State* L) {
  const Ending ending(*this, L);
  bool known = true;
  std::string error;
  const bool done = call_known(L) || protect(L, error, [&](lua_State* state) { known = find_and_call(state); });
  if (!done) fail(error);
  return known;
}

bool EventDispatch::dispatch(lua_State* L, const event_item& event) {
  current = &event;
  g_loop_stats.begin_dispatch();
  const bool known = call_handlers(L);
  g_loop_stats.end_dispatch(known, event.type_name);
  record(event, g_loop_stats.dispatch_began_ns(), g_loop_stats.dispatch_ns(), g_loop_stats.dispatch_errors());
  if (!known) elog(1, "mscript: unknown event type[%s]", event.type_name);
  return known;
}

int evt_type_name(lua_State* L) {
  lua_pushstring(L, dispatched_event().type_name);
  return 1;
}

int evt_timestamp(lua_State* L) {
  const event_item& event = dispatched_event();
  lua_pushinteger(L, event.timestamp[0]);
  lua_pushinteger(L, event.timestamp[1]);
  return 2;
}

int evt_info(lua_State* L) {
  lua_pushstring(L, dispatched_event().info);
  return 1;
}

int evt_field_int(lua_State* L) {
  FieldValue value;
  const long number = strtol(field_arg(L, value), nullptr, 10);
  lua_pushinteger(L, static_cast<lua_Integer>(std::clamp<long>(number, INT_MIN, INT_MAX)));
  return 1;
}

int evt_field_str(lua_State* L) {
  FieldValue value;
  lua_pushstring(L, field_arg(L, value));
  return 1;
}

int evt_field_str_safe(lua_State* L) {
  FieldValue value;
  const char* const name = text_arg(L, 1);
  const bool found = find_field(name, value);
  lua_pushboolean(L, found ? 1 : 0);
  lua_pushstring(L, found ? value : name);
  return 2;
}
