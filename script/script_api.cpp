#include "script/script_api.h"

#include "device/log.h"
#include "script/api_names.h"
#include "script/manager_script.h"
#include "script/stack_dump.h"
#include "util/lua_binding.h"

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

// Reports one result without pushing any: the script gets its last argument back.
int trace(lua_State* L) {
  const int level = number_arg(L, 1);
  elog(level, "lua-trace: %s", text_arg(L, 2));
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

}  // namespace

void register_script_api(lua_State* L) {
  for (const luaL_Reg& function : kScriptApi) lua_register(L, function.name, function.func);
}
