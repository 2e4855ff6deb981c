-- What init_base.lua gives to scripts, apart from reloads: errors, times, fields. The time zone is Central Europe.
dofile(lua_dir .. "/init_base.lua")

local now = 1774656000 -- 2026-03-28 00:00 UTC

local function pass(seconds)
  now = now + seconds
  return ran(now, 0)
end

local function chunk(code) return assert(loadstring(code, "=probe")) end

local function traced_by_event(info)
  event_post(1, "x", info)
  return pass(0)
end

pass(0)
es_list = { list_func = 7 }
raises("es_list.list_func is a number, not a table", on, "list", print)
local expected = "on(type_name, func [, arg]): the name "
for name, why in pairs { [""] = "is missing", ["door open"] = "holds a blank or a control character",
  ["a\0b"] = "holds a blank or a control character", [("n"):rep(128)] = "is longer than 127 bytes" } do
  raises(expected .. why, on, name, print)
end
on(("n"):rep(127), print)

-- An error, wherever it happens, is written with its traceback, line by line.
local failing = chunk("local text = ...\nlocal function f() error(text) end\n" ..
  "if text == 'tick' then tmr_delete() end\nif text == 'later' then cr_yield(5) end\nf()")
local stack = "|stack traceback:|  [C]: in function 'error'|  probe:2: in function 'f'|  probe:5: in "
local func, main = stack .. "function 'func'", stack .. "main chunk"
local boom = "base.lua: handler of x failed: probe:2: boom"
on("x", failing, "boom")
on("x", function() trace(1, "next") end)
check("handler", traced_by_event(""), boom .. func .. "|next")
every(10, failing, "tick")
check("timer", pass(10), "base.lua: timer of 10 s failed: probe:2: tick" .. func)
task(failing, "now")
task(failing, "later")
check("task", traced(), "base.lua: task failed: probe:2: now" .. main)
check("task that waited", ran(now, 6), "base.lua: task failed: probe:2: later" .. main)
task(chunk("error(setmetatable({ a = 1 }, setmetatable({}, { __index = error })))"))
check("a metatable that raises", traced():match("^[^|]*"), "base.lua: task failed: { a = 1 }")

-- It is written once, then counted each minute, and forgotten after a minute without it.
for _ = 1, 3 do check("repeated", traced_by_event(""), "next") end
check("counted", pass(50), boom .. " (3 more within a minute)")
check("quiet", pass(60), "")
check("written again", traced_by_event(""), boom .. func .. "|next")

-- Whatever the error value is, and however many errors there are.
local values = {
  { "error({}, 0)", "(the error value is a table)" },
  { "error({ code = 5, [6] = 'a\\nb', at = {} }, 0)", '{ 6 = "a\\nb", at = (table), code = 5 }' },
  { "error(setmetatable({}, { __tostring = function() return 'text' end }), 0)", "text" },
  { "local p = newproxy(true) getmetatable(p).__tostring = error error(p, 0)", "(the error value is a userdata)" },
  { "error('a\\nb\\tc', 0)", "a|b  c" }, { "local function f() return 1 + f() end f()", "probe:1: stack overflow" },
}
for _, row in ipairs(values) do
  es_x = nil
  on("x", chunk(row[1]))
  check(row[1], traced_by_event(""):sub(1, 35 + #row[2]), "base.lua: handler of x failed: " .. row[2] .. "|sta")
end
es_x = nil
on("x", function() error(evt_info(), 0) end)
local written = ""
for i = 1, 200 do written = written .. traced_by_event("error " .. i) end
local told = 19 - #values
check("different errors", select(2, written:gsub("failed", "")), told)
coroutine.wrap(on)("x", chunk("error('other', 0)")) -- where nobody sees that it is for this file
check("another module's", traced_by_event(""):sub(1, 34), "=probe: handler of x failed: other")
es_x.list_func[2] = nil
check("further errors", pass(60), "base.lua: errors of other kinds (" .. 201 - told .. " more within a minute)")

-- at: once a local day, whatever happens to the offset from universal time and to the clock. Rows: hour, minute, the
-- local time at which it is registered, then pairs of a number of passes and the seconds between them; when it ran.
local function time(year, month, day, hour, second)
  return os.time { year = year, month = month, day = day, hour = hour, sec = second }
end
local rows = {
  ["over for today"] = { 3, 0, time(2026, 1, 13, 3, 1), { 288, 600 }, "14 03:00+0100 15 03:00+0100 " },
  ["skipped in spring"] = { 2, 30, time(2026, 3, 28, 13, 0), { 288, 600 }, "29 03:00+0200 30 02:30+0200 " },
  ["twice in autumn"] = { 2, 30, time(2026, 10, 24, 14, 0), { 288, 600 }, "25 02:30+0200 26 02:30+0100 " },
  ["late, in the next year"] = { 23, 59, time(2026, 12, 31, 23, 0), { 58, 60, 1, 300, 60, 60 }, "01 00:03+0100 " },
  ["beyond 32 bits of seconds"] = { 3, 0, time(2040, 1, 13, 2, 0), { 61, 60 }, "13 03:00+0100 " },
  ["clock set back"] = { 3, 0, time(2026, 2, 3, 2, 0), { 61, 60, 1, -1800, 60, 60 }, "03 03:00+0100 03 03:00+0100 " },
}
for label, row in pairs(rows) do
  now = row[3]
  pass(0)
  local over, days = false, ""
  at(row[1], row[2], function()
    if over then return tmr_delete() end
    trace(1, os.date("%d %H:%M%z ", now))
  end)
  for i = 1, #row[4], 2 do
    for _ = 1, row[4][i] do days = days .. pass(row[4][i + 1]) end
  end
  check(label, days, row[5])
  over = true
end

es_x = nil
on("x", function()
  local found = fields()
  trace(1, table.concat({ found.a, found.b, found.c, found[" d"], found[""], tostring(found.e) }, ","))
end)
check("fields", traced_by_event("a=1&b=&a=2&=e&e&c=x=y& d=5"), "1,,x=y,5,e,nil")
