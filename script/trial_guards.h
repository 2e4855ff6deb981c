// What scripts do to the world outside the daemon, and a trial leaves out.
//
// A trial runs the scripts in a copy of the daemon (reload_trial.h). What they change in the copy is gone with it, but
// a program that is started, a file that is written or an event that is posted is not. So the functions that do such
// things are wrapped once, before a script can keep one of them: outside a trial a wrapper only calls its function, in
// one it looks like success and does nothing. docs/scripting.md has the table of what each returns.
#pragma once

#include <lua.hpp>

extern "C" {

// 1 in the copy of the daemon that tries a reload, else 0. For plug-ins too, see extension/plugin.h. Any thread.
int zelvind_trial(void);
}

inline bool in_trial() {
  return zelvind_trial() != 0;
}

// Wraps the functions in a fresh state; those that it does not have are left out. Once per state, under protection.
void wrap_outside_functions(lua_State* L);

// From now on this process is the copy. A script that calls os.exit ends in `exit_called`, which must not return. In
// the copy, once, before scripts run.
void begin_trial(void (*exit_called)(lua_State* L));

// As lua_call(L, 0, 0); in a trial, an error's traceback is kept. Only the thread that has the Lua state.
void call_traced_in_trial(lua_State* L);

// The traceback of the last such error, or of the place where a script called os.exit: "stack traceback:" and a line
// for each function; empty when there is none. In the copy.
const char* trial_traceback();
