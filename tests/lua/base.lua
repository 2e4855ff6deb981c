-- What init_base.lua gives to scripts, apart from reloads: errors, times, fields. The time zone is Central Europe.
local set_clock = at
dofile(lua_dir .. "/init_base.lua")

local T = 1774656000 -- 2026-03-28 00:00 UTC
local now = T

local function pass(seconds)
  now = now + seconds
  set_clock(now, 0)
  run_timers()
end

-- The lines since the last call, without what the daemon says about coroutines.
local function lines()
  return (("|" .. log()):gsub("|<2> corutine[^|]*", ""):gsub("|<1> lua%-trace: ", "|"):sub(2))
end

local function chunk(code) return assert(loadstring(code, "=probe")) end

set_clock(now, 0)
raises("on", "on(type_name, func [, arg]): a string and a function expected", function() on("x") end)
raises("every", "every(interval_s, func [, arg]): whole seconds from 1 on and a function expected",
  function() every(1.5, print) end)
raises("at", "at(hour, minute, func [, arg]): 0 to 23, 0 to 59 and a function expected", function() at(24, 0, print) end)
raises("task", "task(func [, arg]): a Lua function expected", function() task(print) end)
es_number = 5
raises("table", "es_number is no table but a number", function() on("number", print) end)
raises("fields", "no event is being dispatched", function() fields() end)

-- An error, wherever it happens, is written with its traceback, line by line.
local failing = chunk("local text = ...\nlocal function f() error(text) end\nif stop then tmr_delete() return end\n" ..
  "if text == 'later' then cr_yield(5) end\nf()")
local stack = "|stack traceback:|  [C]: in function 'error'|  probe:2: in function 'f'|  probe:5: in "
local func, main = stack .. "function 'func'", stack .. "main chunk"
log()
on("x", failing, "boom")
on("x", function() trace(1, "next") end)
dispatch(1, "x", "")
check("handler", lines(), "base.lua: handler of x failed: probe:2: boom" .. func .. "|next")
every(10, failing, "tick")
pass(10)
check("timer", lines(), "base.lua: timer of 10 s failed: probe:2: tick" .. func)
task(failing, "now")
check("task", lines(), "base.lua: task failed: probe:2: now" .. main)
task(failing, "later")
check("task that waits", lines(), "")
set_clock(now, 6)
resume_coroutines()
check("task that waited", lines(), "base.lua: task failed: probe:2: later" .. main)

-- It is written once, then counted each minute, and forgotten after a minute without it.
for _ = 1, 3 do dispatch(1, "x", "") end
pass(10)
check("repeated", lines(), "next|next|next")
stop = true
pass(40)
local counted = "|" .. lines() .. "|"
for _, line in ipairs { "handler of x failed: probe:2: boom (3", "timer of 10 s failed: probe:2: tick (1" } do
  check("counted", counted:find("|base.lua: " .. line .. " more within a minute)|", 1, true) ~= nil, true)
end
check("only these", select(2, counted:gsub("|", "")), 3)
pass(60)
check("quiet", lines(), "")
check("no timer is left", (counts()), 0)
stop = false
dispatch(1, "x", "")
check("written again", lines(), "base.lua: handler of x failed: probe:2: boom" .. func .. "|next")
pass(60)
pass(60)

-- Whatever the error value is, and however many errors there are.
local values = {
  { "error({}, 0)", "(the error value is a table)" }, { "error()", "(the error value is a nil)" }, { "error(5, 0)", "5" },
  { "error(setmetatable({}, { __tostring = function() return 'text' end }), 0)", "text" },
  { "local p = newproxy(true) getmetatable(p).__tostring = error error(p, 0)", "(the error value is a userdata)" },
  { "error('a\\nb\\tc', 0)", "a|b  c" }, { "local function f() return 1 + f() end f()", "probe:1: stack overflow" },
  { "evt_field_str('none')", "probe:1: not found field[none]" },
  { "coroutine.yield()", "attempt to yield across metamethod/C-call boundary" },
}
for _, row in ipairs(values) do
  es_x = nil
  on("x", chunk(row[1]))
  dispatch(1, "x", "")
  check(row[1], lines():sub(1, 35 + #row[2]), "base.lua: handler of x failed: " .. row[2] .. "|sta")
end
es_x = nil
on("x", function() error(evt_info(), 0) end)
for i = 1, 200 do dispatch(1, "x", "error " .. i) end
check("different errors", select(2, lines():gsub("failed", "")), 50 - #values)
pass(60)
check("further errors", lines(), "init_base: " .. 150 + #values .. " more errors of other kinds within a minute")
pass(60)
check("no timer is left", (counts()), 0)

-- A task resumes a coroutine inside the daemon's, which nobody notices.
task(function(arg)
  trace(1, arg)
  cr_yield(100)
  trace(1, "on")
  task(function() cr_yield(50) trace(1, "inner") end)
  cr_yield(10)
  trace(1, "end")
end, "begin")
for _, ms in ipairs { 50, 101, 112, 152 } do
  set_clock(now, ms)
  resume_coroutines()
  trace(1, tostring(ms))
end
check("task", lines(), "begin|50|on|101|end|112|inner|152")
set_clock(now, 5000)
resume_coroutines()
check("no coroutine is left", select(2, counts()), 0)

-- at: once a local day, whatever happens to the offset from universal time and to the clock. Rows: hour, minute, the
-- time at which it is registered (UTC), then pairs of a number of passes and the seconds between them; when it ran.
local rows = {
  plain = { 3, 0, "2026-01-10 00:00:30", { 2880, 60 }, "10 03:00+0100 11 03:00+0100" },
  ["over for today"] = { 3, 0, "2026-01-13 02:00:01", { 2880, 60 }, "14 03:00+0100 15 03:00+0100" },
  ["skipped in spring"] = { 2, 30, "2026-03-28 12:00:00", { 2880, 60 }, "29 03:00+0200 30 02:30+0200" },
  ["twice in autumn"] = { 2, 30, "2026-10-24 12:00:00", { 2880, 60 }, "25 02:30+0200 26 02:30+0100" },
  ["behind it"] = { 3, 0, "2026-10-21 12:00:00", { 7200, 60 }, "22 03:00+0200 23 03:00+0200 24 03:00+0200 25 03:00+0100 " ..
    "26 03:00+0100" },
  ["late, in the next year"] = { 23, 59, "2026-12-31 22:00:00", { 58, 60, 1, 300, 60, 60 }, "01 00:03+0100" },
  ["clock set ahead"] = { 3, 0, "2026-02-01 01:00:00", { 10, 60, 1, 7200, 60, 60 }, "" },
  ["clock set back"] = { 3, 0, "2026-02-03 01:00:00", { 61, 60, 1, -1800, 60, 60 }, "03 03:00+0100 03 03:00+0100" },
}
for label, row in pairs(rows) do
  local year, month, day, hour, minute, second = row[3]:match("(%d+)%-(%d+)%-(%d+) (%d+):(%d+):(%d+)")
  local utc = { year = year, month = month, day = day, hour = hour, min = minute, sec = second, isdst = false }
  now = os.time(utc) + 3600
  set_clock(now, 0)
  local ran, over = {}, false
  at(row[1], row[2], function()
    if over then return tmr_delete() end
    ran[#ran + 1] = os.date("%d %H:%M%z", now)
  end)
  for i = 1, #row[4], 2 do
    for _ = 1, row[4][i] do pass(row[4][i + 1]) end
  end
  check(label, table.concat(ran, " "), row[5])
  over = true
end
check("no errors", lines(), "")

-- fields
es_x = nil
local found
on("x", function() found = fields() end)
dispatch(1, "x", "a=1&b=&a=2&=e&nothing&c=x=y& d=5")
local names = {}
for name, value in pairs(found) do names[#names + 1] = name .. ":" .. value end
table.sort(names)
check("fields", table.concat(names, ","), " d:5,:e,a:1,b:,c:x=y")

-- At run time the timers of a handler belong to its module, and every tells what it cannot do.
on("x", function() every(7, function() tmr_delete() trace(1, "once") end) end)
dispatch(1, "x", "")
pass(7)
check("once", lines(), "once")
raises("limit", "too many timers", function() for _ = 1, 70000 do every(9, print) end end)
