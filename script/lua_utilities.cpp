// Bit, sign and byte functions and sleep.

#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "device/log.h"
#include "script/api_names.h"
#include "script/script_api.h"
#include "script/script_stop.h"
#include "util/clock.h"
#include "util/lua_binding.h"

namespace {

constexpr int kLongestSleepMs = 2147483;  // what 32 bits of microseconds hold
constexpr int64_t kSliceUs = 100000;      // a script that sleeps can be stopped that often

uint32_t bits(int value) {
  return static_cast<uint32_t>(value);
}
int number(uint32_t value) {
  return static_cast<int>(value);
}

// Shift amounts count modulo 256; from 32 on, only the sign of the value is left.
int shift_left(int value, int amount) {
  const uint32_t n = bits(amount) & 255;
  return n < 32 ? number(bits(value) << n) : 0;
}

int shift_right(int value, int amount) {
  const uint32_t n = bits(amount) & 255;
  const uint32_t sign = value < 0 ? ~0U : 0U;
  if (n == 0) return value;
  return number(n < 32 ? bits(value) >> n | sign << (32 - n) : sign);
}

int negated(int value) {
  return number(0U - bits(value));
}

int push(lua_State* L, int value) {
  lua_pushinteger(L, value);
  return 1;
}

int bit_and(lua_State* L) {
  return push(L, int_arg(L, 1) & int_arg(L, 2));
}

int bit_or(lua_State* L) {
  int result = 0;
  const int count = lua_gettop(L);
  for (int i = 1; i <= count; ++i) result |= number_arg(L, i);
  return push(L, result);
}

int bit_xor(lua_State* L) {
  return push(L, int_arg(L, 1) ^ int_arg(L, 2));
}

int bit_check(lua_State* L) {
  lua_pushboolean(L, shift_right(int_arg(L, 1), int_arg(L, 2)) & 1);
  return 1;
}

int lsb(lua_State* L) {
  const int count = int_arg(L, 1);
  const int value = int_arg(L, 2);
  if (count <= 0) return push(L, 0);
  return push(L, count >= 32 ? value : number(bits(value) & ((1U << count) - 1)));
}

int msb(lua_State* L) {
  return push(L, shift_right(int_arg(L, 2), int_arg(L, 1)));
}

int lb(lua_State* L) {
  return push(L, int_arg(L, 1) & 255);
}

int hb(lua_State* L) {
  return push(L, shift_right(int_arg(L, 1), 8));
}

int shift(lua_State* L) {
  const int amount = int_arg(L, 1);
  const int value = int_arg(L, 2);
  return push(L, amount > 0 ? shift_left(value, amount) : shift_right(value, negated(amount)));
}

int absolute(lua_State* L) {
  const int value = int_arg(L, 1);
  return push(L, value < 0 ? negated(value) : value);
}

int isplus(lua_State* L) {
  return push(L, int_arg(L, 1) > 0 ? 1 : 0);
}

int isminus(lua_State* L) {
  return push(L, int_arg(L, 1) < 0 ? 1 : 0);
}

// Returns 1 without pushing a result: the script gets its last argument back.
int sleep_ms(lua_State* L) {
  const int duration = int_arg(L, 1);
  if (duration < 0 || duration > kLongestSleepMs) throw ArgumentError(1, "0 to 2147483 ms expected");
  elog(2, "lua: sleep(%d)\n", duration);
  const int64_t end_ns = steady_ns() + int64_t{duration} * 1000000;
  int64_t left_us = int64_t{duration} * 1000;
  do {
    usleep(static_cast<useconds_t>(std::min(left_us, kSliceUs)));
    ScriptStop::check(L);
    left_us = (end_ns - steady_ns() + 999) / 1000;
  } while (left_us > 0);
  if (lua_gettop(L) == 0) lua_pushnil(L);
  return 1;
}

constexpr luaL_Reg kUtilities[] = {
    {"bit_and", api<bit_and>}, {"bit_or", api<bit_or>}, {"bit_xor", api<bit_xor>}, {"bit_check", api<bit_check>},
    {"lsb", api<lsb>},         {"msb", api<msb>},       {"lb", api<lb>},           {"hb", api<hb>},
    {"shift", api<shift>},     {"abs", api<absolute>},  {"isplus", api<isplus>},   {"isminus", api<isminus>},
    {"sleep", api<sleep_ms>},
};
static_assert(has_names(kUtilities, kLuaUtilityNames));

}  // namespace

void register_lua_utilities(lua_State* L) {
  for (const luaL_Reg& function : kUtilities) lua_register(L, function.name, function.func);
}
