// post(type, name [, { field = value, ... }]): an event whose info is made of a table, by the rules that `zelvctl post`
// goes by too (device/event_line.h).

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "device/event_line.h"
#include "device/event_source.h"
#include "script/script_api.h"
#include "script/trial_guards.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

using Field = std::pair<std::string, std::string>;  // name and value

using NumberText = char[40];

// A whole number in full: the 14 digits that Lua writes would make another number of a large one.
void write_number(lua_Number number, NumberText& text) {
  constexpr lua_Number kExact = 9007199254740992.0;  // 2^53
  const bool is_whole = std::fabs(number) <= kExact && std::floor(number) == number;
  snprintf(text, sizeof(text), is_whole ? "%.0f" : LUA_NUMBER_FMT, number);
}

// The text of the value at `index`, which is not converted in place: lua_next would lose such a key.
std::string value_text(lua_State* L, int index) {
  switch (lua_type(L, index)) {
    case LUA_TNUMBER: {
      NumberText text;
      write_number(lua_tonumber(L, index), text);
      return text;
    }
    case LUA_TBOOLEAN:
      return lua_toboolean(L, index) != 0 ? "true" : "false";
    default:
      return {lua_tostring(L, index), lua_objlen(L, index)};
  }
}

// Reads the pair on top of the stack. Throws ScriptError, which names the field.
Field read_field(lua_State* L) {
  if (lua_type(L, -2) != LUA_TSTRING) {
    throw ScriptError(sstr("a field's name is a %s, not a string", luaL_typename(L, -2)));
  }
  std::string name = value_text(L, -2);
  const int type = lua_type(L, -1);
  if (type != LUA_TSTRING && type != LUA_TNUMBER && type != LUA_TBOOLEAN) {
    throw ScriptError(
        sstr("field '%s' is a %s: expected a string, a number or a boolean", name.c_str(), lua_typename(L, type)));
  }
  std::string value = value_text(L, -1);
  const char* const error = check_event_field(name, value);
  if (error != nullptr) throw ScriptError(sstr("field '%s': %s", name.c_str(), error));
  return {std::move(name), std::move(value)};
}

// The info of an event with the fields of the table at `index`, ordered by name: a table has no order of its own.
// Raises nothing, as lua_next finds every key of an unchanged table.
std::string info_of(lua_State* L, int index) {
  std::vector<Field> fields;
  for (lua_pushnil(L); lua_next(L, index) != 0; lua_pop(L, 1)) fields.push_back(read_field(L));
  std::sort(fields.begin(), fields.end());
  std::string info;
  for (const auto& [name, value] : fields) {
    info.append(info.empty() ? "" : "&").append(name).append("=").append(value);
  }
  return info;
}

// Returns null, or why the event was not queued.
const char* queue_event(int type, const char* name, const std::string& info) {
  if (in_trial()) return nullptr;
  if (event_post == nullptr) return "this device's event queue takes no events from scripts";
  switch (event_post(type, name, info.c_str())) {
    case -1:
      return "the queue is closed";
    case -2:
      return "the queue is full";
    default:
      return nullptr;
  }
}

}  // namespace

int post(lua_State* L) {
  lua_settop(L, 3);
  const int type = whole_arg(L, 1);
  const std::string_view name = bytes_arg(L, 2);
  if (const char* const error = check_event_name(name)) throw ArgumentError(2, error);
  if (!lua_istable(L, 3) && !lua_isnil(L, 3)) {
    throw ArgumentError(3, std::string("table of fields expected, got ") + luaL_typename(L, 3));
  }
  const char* refusal = nullptr;
  {
    const std::string info = lua_isnil(L, 3) ? "" : info_of(L, 3);
    const std::string line = std::to_string(type) + " " + std::string(name) + " " + info;
    EventLine event{};
    if (const char* const error = parse_event_line(line, event)) throw ScriptError(error);
    refusal = queue_event(type, name.data(), info);
  }
  lua_pushboolean(L, refusal == nullptr ? 1 : 0);
  if (refusal == nullptr) return 1;
  lua_pushstring(L, refusal);
  return 2;
}

int number_text(lua_State* L) {
  NumberText text;
  write_number(lua_tonumber(L, 1), text);
  lua_pushstring(L, text);
  return 1;
}

int wrong_event_name(lua_State* L) {
  lua_pushstring(L, check_event_name(bytes_arg(L, 1)));
  return 1;
}
