#include "script/event_dispatch.h"

#include <cassert>

#include "device/log.h"
#include "script/clua.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

// Stack positions during a dispatch. Both tables stay there: a handler may replace or empty them.
constexpr int kTable = 1;
constexpr int kList = 2;
constexpr int kEntry = 3;

void call_entry(lua_State* L, ManagerScript& script, const event_item& event, int index) {
  lua_rawgeti(L, kList, index);
  if (!lua_istable(L, kEntry)) {
    elog(1, "mscript: error[etype:%d] - es_%s.list_func[%d] is no table but a %s", event.type, event.type_name, index,
         luaL_typename(L, kEntry));
    return;
  }
  lua_rawgeti(L, kEntry, 1);
  const char* const tag = lua_tostring(L, -1);
  script.handler_tag = tag == nullptr ? "" : tag;
  lua_pop(L, 1);
  lua_rawgeti(L, kEntry, 2);
  lua_rawgeti(L, kEntry, 3);
  if (lua_pcall(L, 1, 0, 0) != 0) elog(1, "mscript: error[etype:%d] - %s", event.type, clua_error_text(L).c_str());
}

// Returns false when there is no handler table.
bool call_handlers(lua_State* L, ManagerScript& script, const event_item& event) {
  char name[3 + sizeof(event.type_name)] = "es_";
  copy_text(name + 3, sizeof(event.type_name), event.type_name);
  lua_getfield(L, LUA_GLOBALSINDEX, name);
  if (lua_isnil(L, kTable)) return false;
  if (!lua_istable(L, kTable) && !lua_isuserdata(L, kTable)) {
    throw ScriptError(sstr("%s is no table but a %s", name, luaL_typename(L, kTable)));
  }
  lua_getfield(L, kTable, "list_func");
  if (lua_isnil(L, kList)) return true;
  if (!lua_istable(L, kList)) {
    throw ScriptError(sstr("%s.list_func is no table but a %s", name, luaL_typename(L, kList)));
  }
  const int count = static_cast<int>(lua_objlen(L, kList));  // what a handler appends waits for the next event
  for (int i = 1; i <= count; ++i) {
    call_entry(L, script, event, i);
    lua_settop(L, kList);
  }
  return true;
}

}  // namespace

bool dispatch_event(ManagerScript& script, const event_item& event) {
  assert(script.gate.held_here());
  script.current_event = &event;
  bool known = true;
  std::string error;
  const bool done = protect(script.lua_state, error, [&](lua_State* L) { known = call_handlers(L, script, event); });
  script.handler_tag.clear();
  script.current_event = nullptr;
  if (!done) elog(1, "mscript: error[etype:%d] - %s", event.type, error.c_str());
  if (!known) elog(1, "mscript: unknown event type[%s]", event.type_name);
  return known;
}
