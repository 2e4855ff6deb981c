/* A plug-in that says in the log what is called. One file for all that behave in C: definitions set its NAME, its kind
 * (SOURCE, or else an eAction), what it lacks (NO_INIT) and does (REFUSES, RAISES, RAISES_AT_END). */
#include <zelvind/plugin.h>

#ifdef SOURCE
#define ENTRY(what) esource_##what
#ifndef NO_INIT
int esource_init(void) {
  elog(2, "%s: init", NAME);
#ifdef REFUSES
  return -1;
#endif
  return 0;
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
  return 0;
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

void ENTRY(cleanup)(void) {
  elog(2, "%s: cleanup", NAME);
}
