set_handler_tag("test")
local T = 1000000
local ran = {}

local function add(name, interval, origin, callback)
  tmr_add(function(arg)
    ran[#ran + 1] = arg
    if callback then callback() end
  end, interval, origin, name)
end

-- Runs the pass at `seconds` and tells which timers ran.
local function pass(seconds)
  ran = {}
  at(seconds, 0)
  run_timers()
  return table.concat(ran, " ")
end

at(T, 0)
add("eight", 8, T)
add("future", 60, T + 100)
check("never at once", pass(T), "")
check("phase of the future", pass(T + 40), "eight future")
check("once", pass(T + 40), "")
check("between", pass(T + 47), "")
check("late by many intervals, runs once", pass(T + 500), "eight future")
check("grid kept", pass(T + 503), "")
check("grid kept", pass(T + 504), "eight")
for name, step in pairs { back = -900000, ahead = 2000000 } do
  pass(T + step)
  check("clock stepped " .. name, pass(T + step + 8):find("eight") ~= nil, true)
  check("clock stepped " .. name, pass(T + step + 60):find("future") ~= nil, true)
end

-- Far-off and overflowing due times never run, and nothing runs twice.
at(T, 0)
add("far", 2147483647, 1)
add("negative", 2147483647, -2147483648)
check("far off", pass(T + 3):find("far"), nil)
check("far off", pass(T + 3), "")

-- A callback that deletes itself, adds others, and raises.
local held = references()
local S = T + 10
pass(S)
add("once", 1, 0, function()
  for i = 1, 100 do add("added", 1, 0, tmr_delete) end
  tmr_delete()
  raises("second delete", "This is not timer callback", function() tmr_delete() end)
  error("after delete")
end)
add("behind", 1, 0, tmr_delete)
log()
local before = counts()
check("both run", pass(S + 1), "once behind")
check("the error is logged", log():find("<1> mscript: Could not execute timer %-%- .*after delete\n$") ~= nil, true)
check("records", (counts()), before - 2 + 100)
check("the added ones run next", (pass(S + 2):gsub("added", "", 100)):match("^%s*$") ~= nil, true)
check("records", (counts()), before - 2)
check("registry", references(), held)

-- A failing one stays; text or not, the stack is as before.
tmr_add(function() error({}) end, 1, 0, nil)
tmr_add(5, 1, 0, nil)
log()
for i = 3, 4 do
  pass(S + i)
  check("failure " .. i, log(), "<1> mscript: Could not execute timer -- NOT ERROR\n" ..
    "|<1> mscript: Could not execute timer -- attempt to call a number value\n")
end

raises("outside", "This is not timer callback", function() tmr_delete() end)
raises("interval", "bad argument #2 to 'tmr_add' (an interval of at least 1 s expected)", function() tmr_add(print) end)
raises("function", "bad argument #1 to 'tmr_add' (function expected, got no value)", function() tmr_add() end)
tmr_add(function(arg) given = arg; tmr_delete() end, 1, 77)
pass(S + 5)
check("the last argument is the argument", given, 77)
set_handler_tag("")
raises("tag", "not set script tag name yet", function() tmr_add(print, 1, 0, nil) end)
set_handler_tag("test")
raises("limit", "too many timers", function() for _ = 1, 70000 do tmr_add(print, 2147483647, 0, nil) end end)
check("limit", (counts()), 65536)

-- timer_time fills fields from the right; month 0 is January; -1 keeps the current value.
at(1700000000, 0)
check("now", timer_time(), 1700000000)
local rows = {
  { { -1, 0, 0 }, "%M:%S", "00:00" }, { { 3, 0, 0 }, "%H:%M:%S", "03:00:00" }, { { 0, 75 }, "%M:%S", "01:15" },
  { { 2024, 0, 15, 12, 0, 0 }, "%Y-%m-%d %H", "2024-01-15 12" }, { { 30 }, "%S", "30" },
}
for _, row in ipairs(rows) do
  check(table.concat(row[1], ","), os.date(row[2], timer_time(unpack(row[1]))), row[3])
end
raises("seven", "timer_time takes at most six arguments", function() timer_time(1, 2, 3, 4, 5, 6, 7) end)
timer_time(-2147483648, 0, 0, 0, 0, 0)
