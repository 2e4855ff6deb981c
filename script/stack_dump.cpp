#include "script/stack_dump.h"

#include "device/log.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"
#include "util/text.h"

// Nothing in this file can raise once the arguments are read: the walk pushes a few values within the room that every C
// function has, and lua_next of an unchanged table finds each of its keys. So strings may be alive in between.
namespace {

// By type and never with lua_tolstring, which would turn a number key into text under lua_next's feet.
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

// `L` lends its stack for the walk: the main state may stand below it, in the middle of a resume.
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

}  // namespace

int stack_dump(lua_State* L) {
  const char* const name = text_arg(L, 1);
  lua_State* const main = g_mscript->lua_state;
  const int count = lua_gettop(main);
  elog(1, "lua stack %s(%d)---\n  ", name, count);
  for (int index = 1; index <= count; ++index) dump_value(L, main, index);
  elogr(1, "\n---\n");
  return 0;
}
