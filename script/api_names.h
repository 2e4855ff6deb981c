// The names of the globals that the daemon adds for its scripts, as plain data for tools that check scripts without
// running them. The compiler checks the tables that register the functions against these lists.
#pragma once

#include <cstddef>
#include <string_view>

// Registered by register_script_api, in this order.
inline constexpr const char* kScriptApiNames[] = {
    "script_define",      "get_module_name", "set_handler_tag", "timems",        "timer_time",
    "evt_type_name",      "evt_timestamp",   "evt_info",        "evt_field_int", "evt_field_str",
    "evt_field_str_safe", "cr_add",          "cr_yield",        "tmr_add",       "tmr_delete",
    "stack_dump",         "trace",
};

// Registered by register_script_helpers, in this order.
inline constexpr const char* kScriptHelperNames[] = {"post", "keep"};

// Registered by register_lua_utilities, in this order.
inline constexpr const char* kLuaUtilityNames[] = {
    "bit_and", "bit_or", "bit_xor", "bit_check", "lsb", "msb", "lb", "hb", "shift", "abs", "isplus", "isminus", "sleep",
};

// Registered by the device libraries that ship with the daemon: helper_init and econf_init.
inline constexpr const char* kDeviceApiNames[] = {"event_post", "econf_str", "econf_int"};

// True when the `name` fields of the entries of `table` are exactly these names, in this order.
template <typename Entry, size_t entries, size_t count>
constexpr bool has_names(const Entry (&table)[entries], const char* const (&names)[count]) {
  if (entries != count) return false;
  for (size_t i = 0; i < count; ++i) {
    if (std::string_view(table[i].name) != names[i]) return false;
  }
  return true;
}
