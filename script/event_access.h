// How handlers read the event they were called for. Lua functions; script/script_api.cpp registers them. Outside a
// dispatch each is the Lua error "no event is being dispatched".
#pragma once

#include <lua.hpp>

int evt_type_name(lua_State* L);
int evt_timestamp(lua_State* L);
int evt_info(lua_State* L);
int evt_field_int(lua_State* L);
int evt_field_str(lua_State* L);
int evt_field_str_safe(lua_State* L);
