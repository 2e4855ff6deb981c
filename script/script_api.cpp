#include "script/script_api.h"

#include "device/log.h"
#include "script/api_names.h"
#include "script/manager_script.h"
#include "script/script_keep.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

ScriptModule& loading_module() {
  ScriptModule* const module = g_mscript->scripts.current();
  if (module == nullptr) throw ScriptError("it is not loading");
  return *module;
}

int script_define(lua_State* L) {
  ScriptModule& module = loading_module();
  module.module_name = text_arg(L, 1);
  luaL_unref(L, LUA_REGISTRYINDEX, module.module_ref);
  module.module_ref = LUA_NOREF;
  module.module_ref = luaL_ref(L, LUA_REGISTRYINDEX);  // the last argument, whichever it is
  return 0;
}

int get_module_name(lua_State* L) {
  lua_pushstring(L, loading_module().module_name.c_str());
  return 1;
}

int set_handler_tag(lua_State* L) {
  g_mscript->dispatch.set_handler_tag(text_arg(L, 1));
  return 0;
}

int timems(lua_State* L) {
  lua_pushinteger(L, g_mscript->clock.milliseconds());
  return 1;
}

// Returns 1 without pushing a result: the script gets its last argument back.
int trace(lua_State* L) {
  const int level = number_arg(L, 1);
  elog(level, "lua-trace: %s", text_arg(L, 2));
  return 1;
}

// The stack dump. Once its argument is read, nothing of it can raise: it pushes a few values, for which every C
// function has room, and lua_next finds every key of an unchanged table. So strings may be alive meanwhile.

// Never calls lua_tolstring on a number: that would convert a key in place, and lua_next would lose it.
std::string value_text(lua_State* L, int index) {
  switch (lua_type(L, index)) {
    case LUA_TBOOLEAN:
      return lua_toboolean(L, index) != 0 ? "true" : "false";
    case LUA_TNUMBER:
      return sstr("%g", lua_tonumber(L, index));
    case LUA_TSTRING:
      return lua_tostring(L, index);
    default:
      return luaL_typename(L, index);
  }
}

// The entries of the table on top of the stack, which stays there.
std::string table_text(lua_State* L) {
  std::string text;
  lua_pushnil(L);
  while (lua_next(L, -2) != 0) {
    if (!text.empty()) text += ", ";
    text += sstr("%s:%s", value_text(L, -2).c_str(), value_text(L, -1).c_str());
    lua_pop(L, 1);
  }
  return text;
}

// Walks a table on the stack of `L`: below it, the main state may be in the middle of a resume.
void dump_value(lua_State* L, lua_State* main, int index) {
  const int type = lua_type(main, index);
  switch (type) {
    case LUA_TBOOLEAN:
    case LUA_TNUMBER:
      elogr(1, "%s", value_text(main, index).c_str());
      break;
    case LUA_TSTRING:
      elogr(1, "'%s'", lua_tostring(main, index));
      break;
    case LUA_TTABLE:
      lua_pushvalue(main, index);
      if (main != L) lua_xmove(main, L, 1);
      elogr(1, "table(%s)", table_text(L).c_str());
      lua_pop(L, 1);
      break;
    default:
      elogr(1, "%s(%d)", lua_typename(main, type), type);
      break;
  }
  elogr(1, "    ");
}

int stack_dump(lua_State* L) {
  const char* const name = text_arg(L, 1);
  lua_State* const main = g_mscript->lua_state;
  const int count = lua_gettop(main);
  elog(1, "lua stack %s(%d)---\n  ", name, count);
  for (int index = 1; index <= count; ++index) dump_value(L, main, index);
  elogr(1, "\n---\n");
  return 0;
}

// failed(tag, text): an error that the default scripts have caught.
int failed(lua_State* L) {
  const char* const tag = text_arg(L, 1);
  g_loop_stats.failed(tag, text_arg(L, 2));
  return 0;
}

int load_round(lua_State* L) {
  lua_pushinteger(L, g_mscript->scripts.round());
  return 1;
}

constexpr luaL_Reg kScriptApi[] = {
    {"script_define", api<script_define>},
    {"get_module_name", api<get_module_name>},
    {"set_handler_tag", api<set_handler_tag>},
    {"timems", api<timems>},
    {"timer_time", api<timer_time>},
    {"evt_type_name", api<evt_type_name>},
    {"evt_timestamp", api<evt_timestamp>},
    {"evt_info", api<evt_info>},
    {"evt_field_int", api<evt_field_int>},
    {"evt_field_str", api<evt_field_str>},
    {"evt_field_str_safe", api<evt_field_str_safe>},
    {"cr_add", api<cr_add>},
    {"cr_yield", api<cr_yield>},
    {"tmr_add", api<tmr_add>},
    {"tmr_delete", api<tmr_delete>},
    {"stack_dump", api<stack_dump>},
    {"trace", api<trace>},
};
static_assert(has_names(kScriptApi, kScriptApiNames));

constexpr luaL_Reg kScriptHelpers[] = {{"post", api<post>}, {"keep", api<keep>}};
static_assert(has_names(kScriptHelpers, kScriptHelperNames));

// The module "zelvind.engine": what init_base.lua stands on, and no other script.
constexpr luaL_Reg kEngine[] = {
    {"load_round", api<load_round>},
    {"failed", api<failed>},
    {"add_timer", api<add_timer>},
    {"add_alarm", api<add_alarm>},
    {"has_timer", api<has_timer>},
    {"remove_timer", api<remove_timer>},
    {"remove_former_timers", api<remove_former_timers>},
    {"add_coroutine", api<add_coroutine>},
    {"wake_coroutine", api<wake_coroutine>},
    {"remove_coroutine", api<remove_coroutine>},
    {"ask_wait", api<ask_wait>},
    {"asked_wait", api<asked_wait>},
    {"wrong_event_name", api<wrong_event_name>},
    {"number_text", api<number_text>},
};

}  // namespace

void register_script_api(lua_State* L) {
  for (const luaL_Reg& function : kScriptApi) lua_register(L, function.name, function.func);
  luaL_findtable(L, LUA_REGISTRYINDEX, "_LOADED", 1);  // package.loaded
  lua_newtable(L);
  for (const luaL_Reg& function : kEngine) {
    lua_pushcfunction(L, function.func);
    lua_setfield(L, -2, function.name);
  }
  lua_setfield(L, -2, "zelvind.engine");
  lua_pop(L, 1);
}

void register_script_helpers(lua_State* L) {
  for (const luaL_Reg& function : kScriptHelpers) lua_register(L, function.name, function.func);
}
