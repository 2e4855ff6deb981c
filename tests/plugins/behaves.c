/* A plug-in that says in the log what is called. One file for all that behave in C: definitions set its NAME, its kind
 * (SOURCE, or else an eAction), the INIT_RESULT, and what it lacks (NO_INIT, NO_CLEANUP) or does (RAISES,
 * RAISES_AT_END). */
#include <zelvind/plugin.h>

#ifndef INIT_RESULT
#define INIT_RESULT 0
#endif

#ifdef SOURCE
#define ENTRY(what) esource_##what
#ifndef NO_INIT
int esource_init(void) {
  elog(2, "%s: init", NAME);
  return INIT_RESULT;
}
#endif

#else
#define ENTRY(what) eaction_##what
#include <lauxlib.h>
#include <lua.h>

static lua_State* state;

static int call_me(lua_State* L) {
  lua_pushstring(L, NAME);
  return 1;
}

int eaction_init(lua_State* L) {
  state = L;
  elog(2, "%s: init with %d on the stack", NAME, lua_gettop(L));
  lua_register(L, NAME, call_me);
  lua_pushnumber(L, 1);
#ifdef RAISES
  return luaL_error(L, "no such thing");
#endif
  return INIT_RESULT;
}
#endif

void ENTRY(prepare_cleanup)(void) {
  elog(2, "%s: prepare", NAME);
#if defined(RAISES_AT_END)
  luaL_error(state, "cannot prepare");
#elif !defined(SOURCE)
  lua_getfield(state, LUA_GLOBALSINDEX, NAME);
#endif
}

#ifndef NO_CLEANUP
void ENTRY(cleanup)(void) {
  elog(2, "%s: cleanup", NAME);
}
#endif
