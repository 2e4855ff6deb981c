// The globals that the daemon adds for its scripts. docs/scripting.md describes each.
#pragma once

#include <lua.hpp>

// Registers the seventeen functions of the script API in the globals of a fresh state. May raise a Lua error: call it
// under protection. Main thread.
void register_script_api(lua_State* L);

// Likewise the helpers for scripts: post and keep. They replace nothing of the script API.
void register_script_helpers(lua_State* L);

// Likewise the thirteen utilities: sleep, and what Lua 5.1 lacks for bits, bytes and signs.
void register_lua_utilities(lua_State* L);

// The Lua function post(type, name [, fields]): an event from a table of fields.
int post(lua_State* L);

// For the default scripts, wrong_event_name(name): why no event can have that name, or nil.
int wrong_event_name(lua_State* L);

// Likewise number_text(number): the text that post gives to a number.
int number_text(lua_State* L);
