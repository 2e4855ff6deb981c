-- The globals of zelvind's scripts, for luacheck:
--
--   luacheck --config /usr/share/zelvind/zelvind.luacheckrc FILE...
std = "lua51+zelvind"

stds.zelvind = {
  globals = { "config", "event_server" },
  read_globals = {
    -- init_base.lua
    "on", "every", "at", "after", "task", "wait_event", "finally", "fields",
    -- the script API
    "script_define", "get_module_name", "set_handler_tag", "timems", "timer_time", "evt_type_name", "evt_timestamp",
    "evt_info", "evt_field_int", "evt_field_str", "evt_field_str_safe", "cr_add", "cr_yield", "tmr_add", "tmr_delete",
    "stack_dump", "trace",
    "bit_and", "bit_or", "bit_xor", "bit_check", "lsb", "msb", "lb", "hb", "shift", "abs", "isplus", "isminus", "sleep",
    -- the device libraries that come with the daemon
    "event_post", "econf_str", "econf_int",
    -- the plug-ins that come with the daemon
    "proc_run",
  },
}

-- Scripts share the globals that they define; any script may fill the handler tables, es_NAME.
allow_defined_top = true
ignore = { "1[1-4][1-3]/^es_" }

files["**/init_base.lua"] = {
  globals = { "script_define", "on", "every", "at", "after", "task", "wait_event", "finally", "fields" },
}
files["**/annotations/zelvind.lua"] = { only = {} }
