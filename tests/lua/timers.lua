set_handler_tag("test")
local T = 1000000
ran(T, 0)

local function add(name, interval, origin, callback)
  tmr_add(function(arg)
    trace(1, arg)
    if callback then callback() end
  end, interval, origin, name)
end

-- Timers run on their grid, in a later second than the one they were made in; one that is late runs once, and after a
-- step of the clock it runs on. Rows: seconds after T, what runs.
add("eight", 8, T)
add("future", 60, T + 100)
local passes = {
  { 0, "" }, { 40, "eight|future" }, { 40, "" }, { 47, "" }, { 500, "eight|future" }, { 503, "" }, { 504, "eight" },
  { 503, "" }, { 504, "" }, { 512, "eight" }, { 505, "" }, { 512, "" }, { 520, "eight|future" }, { 511, "" },
  { 512, "eight" },
  { -900000, "" }, { -899992, "eight" }, { -899940, "eight|future" },
  { 2000000, "eight|future" }, { 2000008, "eight" }, { 2000060, "eight|future" }, { 0, "" },
}
for _, row in ipairs(passes) do check("at " .. row[1], ran(T + row[1], 0), row[2]) end

-- A due time that overflows never comes.
add("negative", 2147483647, -2147483648)
check("overflow", ran(T + 3, 0), "")

-- A callback that deletes itself, adds others, and raises.
local failed = "<1> mscript: Could not execute timer -- "
local held, before = references(), counts()
local S = T + 10
ran(S, 0)
add("once", 1, 0, function()
  for _ = 1, 100 do add("added", 1, 0, tmr_delete) end
  tmr_delete()
  raises("This is not timer callback", tmr_delete)
  error("after delete", 0)
end)
add("behind", 1, 0, tmr_delete)
check("both run", ran(S + 1, 0), "once|" .. failed .. "after delete\n|behind")
check("the added ones run next", ran(S + 2, 0), ("added|"):rep(99) .. "added")
check("records", (counts()), before)
check("registry", references(), held)

-- A failing one stays; text or not, the stack is as before.
tmr_add(function() error({}) end, 1, 0, nil)
tmr_add(5, 1, 0, nil)
for i = 3, 4 do
  check("failure " .. i, ran(S + i, 0), failed .. "NOT ERROR\n|" .. failed .. "attempt to call a number value\n")
end

raises("This is not timer callback", tmr_delete)
raises("bad argument #2 to '?' (an interval of at least 1 s expected)", tmr_add, print)
raises("too many timers", function() for _ = 1, 70000 do tmr_add(print, 2147483647, 0, nil) end end)
check("limit", (counts()), 65536)

raises("timer_time takes at most six arguments", timer_time, 1, 2, 3, 4, 5, 6, 7)
timer_time(-2147483648, 0, 0, 0, 0, 0)
