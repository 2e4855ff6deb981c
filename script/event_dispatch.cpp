#include "script/event_dispatch.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "control/loop_stats.h"
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

}  // namespace

void EventDispatch::call_entry(lua_State* L, int index) {
  const event_item& event = *current;
  lua_rawgeti(L, kList, index);
  if (!lua_istable(L, kEntry)) {
    elog(1, "mscript: error[etype:%d] - es_%s.list_func[%d] is a %s, not a table", event.type, event.type_name, index,
         luaL_typename(L, kEntry));
    return;
  }
  lua_rawgeti(L, kEntry, 1);
  const char* const text = lua_tostring(L, -1);
  set_handler_tag(text == nullptr ? "" : text);
  lua_pop(L, 1);
  lua_rawgeti(L, kEntry, 2);
  lua_rawgeti(L, kEntry, 3);
  if (call(L, text) != 0) fail(clua_error_text(L));
}

// Calls the entry's function, which is on the stack below its argument.
int EventDispatch::call(lua_State* L, const char* text) {
  const LoopCall counted(g_mscript->watch, Activity::handler, text == nullptr ? "" : text);
  return lua_pcall(L, 1, 0, 0);
}

void EventDispatch::fail(const std::string& error) const {
  elog(1, "mscript: error[etype:%d] - %s", current->type, error.c_str());
  g_loop_stats.failed(tag.c_str(), error.c_str());
}

// Returns false when there is no handler table.
bool EventDispatch::call_handlers(lua_State* L) {
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
  const int count = static_cast<int>(lua_objlen(L, kList));  // what a handler appends waits for the next event
  for (int i = 1; i <= count; ++i) {
    call_entry(L, i);
    lua_settop(L, kList);
  }
  return true;
}

bool EventDispatch::dispatch(lua_State* L, const event_item& event) {
  current = &event;
  g_loop_stats.begin_dispatch();
  bool known = true;
  std::string error;
  const bool done = protect(L, error, [&](lua_State* state) { known = call_handlers(state); });
  if (!done) fail(error);
  tag.clear();
  current = nullptr;
  g_loop_stats.end_dispatch(known);
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
