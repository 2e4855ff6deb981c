#include "script/event_access.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "script/manager_script.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

constexpr int kValueMax = 1024;  // bytes; a longer value counts as not found

struct FieldValue {
  char text[kValueMax + 1];
};

const event_item& event_at_hand() {
  const event_item* const event = g_mscript->current_event;
  if (event == nullptr) throw ScriptError("no event is being dispatched");
  return *event;
}

bool find_field(const char* name, FieldValue& value) {
  char key[1024];
  const event_item& event = event_at_hand();
  const size_t length = strlen(name);
  if (length + 2 > sizeof(key)) return false;
  memcpy(key, name, length);  // not snprintf, which would cost more than the search
  memcpy(key + length, "=", 2);
  return query_field(event.info, key, value.text, kValueMax) >= 0;
}

const char* field_arg(lua_State* L, FieldValue& value) {
  const char* const name = text_arg(L, 1);
  if (!find_field(name, value)) throw ScriptError(sstr("not found field[%s]", name));
  return value.text;
}

}  // namespace

int evt_type_name(lua_State* L) {
  lua_pushstring(L, event_at_hand().type_name);
  return 1;
}

int evt_timestamp(lua_State* L) {
  const event_item& event = event_at_hand();
  lua_pushinteger(L, event.timestamp[0]);
  lua_pushinteger(L, event.timestamp[1]);
  return 2;
}

int evt_info(lua_State* L) {
  lua_pushstring(L, event_at_hand().info);
  return 1;
}

int evt_field_int(lua_State* L) {
  FieldValue value;
  const long number = strtol(field_arg(L, value), nullptr, 10);
  lua_pushinteger(L, static_cast<lua_Integer>(std::clamp<long>(number, INT_MIN, INT_MAX)));
  return 1;
}

int evt_field_str(lua_State* L) {
  FieldValue value;
  lua_pushstring(L, field_arg(L, value));
  return 1;
}

int evt_field_str_safe(lua_State* L) {
  FieldValue value;
  const char* const name = text_arg(L, 1);
  const bool found = find_field(name, value);
  lua_pushboolean(L, found ? 1 : 0);
  lua_pushstring(L, found ? value.text : name);
  return 2;
}
