---@meta zelvind

-- What scripts find in zelvind, for the Lua language server. In the settings of the editor, or in .luarc.json:
--
--   { "runtime.version": "Lua 5.1", "workspace.library": ["/usr/share/zelvind/annotations"] }
--
-- Nothing runs this file.

---- The default scripts: init_base.lua and config.lua -----------------------------------------------------------------

---What the daemon itself calls: `init` once when the base files have run, `cleanup` at its end.
---@class zelvind.event_server
---@field init fun()
---@field cleanup fun()
event_server = {}

---Settings of this device's scripts, filled by config.lua.
---@type table
config = {}

---What can be cancelled, until the file's next load.
---@class zelvind.handle
local handle = {}

---Ends it at once; what it held is released. A second call does nothing.
function handle:cancel() end

---Whether its function can still be called, or go on.
---@return boolean
---@nodiscard
function handle:active() end

---Calls `func(arg)` for every event of the type, until the file's next load.
---@param type_name string
---@param func fun(arg: any)
---@param arg? any
---@return zelvind.handle
function on(type_name, func, arg) end

---Calls `func(arg)` every `interval_s` seconds: whole ones on the multiples of that time since 1970 (UTC), fractions
---from now on. `tmr_delete()` ends it.
---@param interval_s number seconds, at least 0.01
---@param func fun(arg: any)
---@param arg? any
---@return zelvind.handle
function every(interval_s, func, arg) end

---Calls `func(arg)` once a day at that local time. `tmr_delete()` ends it.
---@param hour integer 0 to 23
---@param minute integer 0 to 59
---@param func fun(arg: any)
---@param arg? any
---@return zelvind.handle
function at(hour, minute, func, arg) end

---Calls `func(arg)` once, `seconds` from now; no step of the clock moves that.
---@param seconds number
---@param func fun(arg: any)
---@param arg? any
---@return zelvind.handle
function after(seconds, func, arg) end

---Runs `func(arg)` as a coroutine, at once and up to its first `cr_yield`.
---@param func fun(arg: any) a Lua function
---@param arg? any
---@return zelvind.handle
function task(func, arg) end

---In a task: waits for an event of the type whose fields include those of `match`. Error "wait_event outside a task"
---elsewhere.
---@param type_name string
---@param seconds? number how long
---@param match? table<string, string|number|boolean>
---@return table<string, string>? fields of the event; nil when the time is over
---@return string? timeout "timeout" when the time is over
function wait_event(type_name, seconds, match) end

---In a task: calls `func()` when it ends in any way. Error "finally outside a task" elsewhere.
---@param func fun()
function finally(func) end

---The fields of the current event. Error when there is none.
---@return table<string, string>
---@nodiscard
function fields() end

---Queues an event with the fields of a table. Error for what an event cannot carry, which names the field.
---@param type integer
---@param name string
---@param fields? table<string, string|number|boolean>
---@return boolean queued
---@return string? reason when it was not queued
function post(type, name, fields) end

---The table kept under that name, which survives reloads and restarts: strings, numbers, booleans and nested tables, at
---most 64 KiB as text. Written every 30 s when it has changed, and when the daemon ends.
---@param name string letters, digits, "_" and "-", at most 64
---@param default? table when nothing is kept under that name
---@return table
---@nodiscard
function keep(name, default) end

---- Files and tags ----------------------------------------------------------------------------------------------------

---Names the script file that is being loaded. Error "it is not loading" elsewhere.
---@param name string
---@param value? any is kept until the next reload
function script_define(name, value) end

---The name given to `script_define`, or "". Error "it is not loading" when no script file is being loaded.
---@return string name
---@nodiscard
function get_module_name() end

---The tag of timers and coroutines made outside handlers, timers, coroutines and loading, until the next event.
---@param tag string
function set_handler_tag(tag) end

---- The current event -------------------------------------------------------------------------------------------------

---The event's type name. Error when no event is being dispatched, as for all `evt_` functions.
---@return string
---@nodiscard
function evt_type_name() end

---The event's time stamp.
---@return integer seconds since the epoch
---@return integer microseconds
---@nodiscard
function evt_timestamp() end

---The event's whole info, `name=value&name=value`.
---@return string
---@nodiscard
function evt_info() end

---A field as a number: the digits at its front, 0 without any. Error "not found field[NAME]".
---@param name string
---@return integer
---@nodiscard
function evt_field_int(name) end

---A field as text, at most 1024 bytes. Error "not found field[NAME]".
---@param name string
---@return string
---@nodiscard
function evt_field_str(name) end

---A field as text: true and its value, or false and the name.
---@param name string
---@return boolean found
---@return string value
---@nodiscard
function evt_field_str_safe(name) end

---- Timers and time ---------------------------------------------------------------------------------------------------

---Calls `func(arg)` every `interval_s` seconds, at the instants that differ from `origin` by whole intervals. A reload
---leaves it running.
---@param func fun(arg: any)
---@param interval_s integer seconds, at least 1
---@param origin integer seconds since the epoch
---@param arg any
function tmr_add(func, interval_s, origin, arg) end

---Deletes the timer whose function runs. Error "This is not timer callback" elsewhere.
function tmr_delete() end

---A local time as seconds since the epoch. The arguments fill the fields year, month (0 is January), day, hour, minute
---and second from the right; what is -1 or missing keeps the current value.
---@param ... integer
---@return integer
---@nodiscard
function timer_time(...) end

---The wall clock in ms, in 32 bits: wraps every 49.7 days and may be negative.
---@return integer
---@nodiscard
function timems() end

---- Coroutines --------------------------------------------------------------------------------------------------------

---Runs `func(arg)` as a coroutine, at once and up to its first `cr_yield`. Its errors are lost, and a reload leaves it
---running.
---@param func fun(arg: any)
---@param delay integer ms; counts when the first run does not call `cr_yield`
---@param arg any
---@return thread
function cr_add(func, delay, arg) end

---Suspends the coroutine; it goes on when the time has passed and no event waits. 0 ends it.
---@param wait integer ms
function cr_yield(wait) end

---- Log ---------------------------------------------------------------------------------------------------------------

---Writes a line to the log.
---@param level integer 1 (always written) to 4
---@param message string
---@return string message
function trace(level, message) end

---Writes the arguments of this very call to the log, at level 1.
---@param name string
---@param ... any
function stack_dump(name, ...) end

---- Numbers of 32 bits ------------------------------------------------------------------------------------------------

---@param a integer
---@param b integer
---@return integer
---@nodiscard
function bit_and(a, b) end

---@param ... integer
---@return integer
---@nodiscard
function bit_or(...) end

---@param a integer
---@param b integer
---@return integer
---@nodiscard
function bit_xor(a, b) end

---Whether bit `n` is set, counted from 0; the sign from 32 on.
---@param value integer
---@param n integer
---@return boolean
---@nodiscard
function bit_check(value, n) end

---The low `n` bits of the value.
---@param n integer
---@param value integer
---@return integer
---@nodiscard
function lsb(n, value) end

---The bits above the low `n`, moved down.
---@param n integer
---@param value integer
---@return integer
---@nodiscard
function msb(n, value) end

---The low byte.
---@param value integer
---@return integer
---@nodiscard
function lb(value) end

---What is above the low byte, moved down.
---@param value integer
---@return integer
---@nodiscard
function hb(value) end

---Shifted left by `n`, or right by `-n` with the sign filled in.
---@param n integer
---@param value integer
---@return integer
---@nodiscard
function shift(n, value) end

---@param value integer
---@return integer
---@nodiscard
function abs(value) end

---1 when the value is above 0, else 0.
---@param value integer
---@return integer
---@nodiscard
function isplus(value) end

---1 when the value is below 0, else 0.
---@param value integer
---@return integer
---@nodiscard
function isminus(value) end

---Blocks everything: no event is taken, no timer runs.
---@param ms integer 0 to 2147483
---@return integer ms
function sleep(ms) end

---- The device libraries that come with the daemon --------------------------------------------------------------------

---Queues an event.
---@param type integer
---@param name string
---@param info? string
---@return boolean queued
---@return string? reason when it was not queued
function event_post(type, name, info) end

---Runs a program. `func` is called with its exit status (256 + N: killed by signal N, -1: not started, -2: its time was
---over) and the first 4 KiB of its output. Comes with the plug-in libeaprocess.so; nil where that is not loaded.
---@param argv (string|number)[] the program and its arguments
---@param timeout_s number 0.001 to 86400
---@param func fun(arg: any, status: integer, output: string)
---@param arg? any
---@return integer id
function proc_run(argv, timeout_s, func, arg) end

---Runs a program in a task, which waits for its end. Status and output as for `proc_run`. A task that ends meanwhile ends
---the program.
---@param argv (string|number)[] the program and its arguments
---@param timeout_s? number 0.001 to 86400; 60 without it
---@return integer status
---@return string output
function run_wait(argv, timeout_s) end

---A text from a settings file beside the daemon's own.
---@param file string its name, without a folder
---@param key string
---@param default? string
---@return string?
---@nodiscard
function econf_str(file, key, default) end

---A whole number from a settings file beside the daemon's own.
---@param file string its name, without a folder
---@param key string
---@param default? integer
---@return integer?
---@nodiscard
function econf_int(file, key, default) end
