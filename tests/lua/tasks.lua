-- Handles, alarms, tasks that wait for events and clean up. Reloads are tested elsewhere.
dofile(lua_dir .. "/init_base.lua")

local wall = 1000000000 -- ms

-- A pass after `ms`; the wall clock is set by `step` ms meanwhile.
local function pass(ms, step)
  wall = wall + ms + (step or 0)
  return ran(math.floor(wall / 1000), wall % 1000, ms)
end
local function event(name, info)
  event_post(1, name, info or "")
  return pass(0)
end
local function say(text) trace(1, text) end
local function wait() return select(3, counts()) end

pass(0)

-- Alarms keep to the steady clock, and make up for nothing.
after(1.5, say, "once")
check("the loop's wait", wait(), 1000)
check("set ahead and back", pass(1400, 86400000) .. pass(99, -90000000), "")
check("the loop's wait at the end", wait(), 1)
check("after", pass(1) .. pass(5000), "once")
local ticks = every(0.25, say, "tick")
check("early", pass(249), "")
check("ticks", pass(1) .. pass(1000) .. pass(249), "ticktick")
check("on its grid", pass(1), "tick")
ticks:cancel()
after(0, function() after(0, say, "second") say("first") end)
after(0.02, say, "fourth")
after(0.01, say, "third")
check("not in the same pass", pass(0), "first")
check("in order", pass(30), "second|third|fourth")

raises("every(interval_s, func [, arg]): 0.01 s or more and a function expected", every, 0.005, print)
raises("after(seconds, func [, arg]): 0 s or more and a function expected", after, -1, print)
raises("after(seconds, func [, arg]): 0 s or more and a function expected", after, 0 / 0, print)
raises("wait_event outside a task", wait_event, "x")
raises("finally outside a task", finally, print)

-- Whatever is cancelled is gone at once, with its function and its argument.
local makers = {
  on = function(func, arg) return on("door", func, arg) end,
  every = function(func, arg) return every(1, func, arg) end,
  fraction = function(func, arg) return every(0.5, func, arg) end,
  at = function(func, arg) return at(0, 0, func, arg) end,
  after = function(func, arg) return after(0.5, func, arg) end,
  task = function(func, arg)
    return task(function(a) local f = func cr_yield(500) f(a) end, arg)
  end,
  waiting = function(func, arg)
    return task(function(a) local f = func wait_event("door", 60) f(a) end, arg)
  end,
}
local function state()
  pass(0)
  collectgarbage()
  local timers, coroutines = counts()
  return table.concat({ timers, coroutines, references(), tostring(es_door) }, " ")
end
for name, make in pairs(makers) do
  local before = state()
  local held = setmetatable({}, { __mode = "v" })
  held.arg = {}
  held.func = function() return held, say("not cancelled") end
  local handle = make(held.func, held.arg)
  check(name .. " is active", handle:active(), true)
  handle:cancel()
  handle:cancel()
  check(name .. " is not active", handle:active(), false)
  collectgarbage()
  collectgarbage()
  check(name .. " has released", held.func or held.arg, nil)
  check(name .. " is gone", state(), before)
  check(name .. " does not run", event("door") .. pass(90000), "<1> mscript: unknown event type[door]")
end

-- From inside its own function, by the handle or by tmr_delete.
local first, second
first = on("door", function() say("one") first:cancel() second:cancel() on("door", say, "three") end)
second = on("door", say, "two")
on("door", say, "last")
check("handlers", event("door") .. event("door"), "one|lastlast|three")
es_door = nil
pass(0)
local held = references()
for name, make in pairs { every = makers.every, fraction = makers.fraction, after = makers.after } do
  for _, ending in ipairs { "cancel", "tmr_delete" } do
    local handle
    handle = make(function()
      say(tostring(handle:active()))
      if ending == "cancel" then handle:cancel() else tmr_delete() end
      say(tostring(handle:active()))
    end)
    check(name .. ", " .. ending, pass(1000) .. pass(5000), tostring(name ~= "after") .. "|false")
  end
end
check("references", references(), held)

-- finally: however a task ends. Rows: what the task does, what is traced.
local handle
local rows = {
  { function() end, "b|a" },
  { function() error("planted", 0) end, "tasks.lua: task failed: planted|stack traceback:|" },
  { function() cr_yield(10) end, "|b|a" },
  { function() cr_yield(10) cr_yield(0) say("no") end, "|b|a" },
  { function() cr_yield(10) coroutine.yield() say("no") end, "|b|a" },
  { function() cr_yield(600000) end, "||b|a" },
  { function() cr_yield(10) handle:cancel() say(tostring(handle:active())) cr_yield(60000) say("no") end,
    "|false|b|a" },
  { function() finally(function() error("planted", 0) end) end, "tasks.lua: finally of a task failed: planted|" },
}
for i, row in ipairs(rows) do
  handle = task(function()
    finally(function() say("a") end)
    finally(function() say("b") end)
    row[1]()
  end)
  local text = traced() .. "|" .. pass(11) .. "|"
  handle:cancel()
  text = (text .. traced()):gsub("|*$", "")
  check("end " .. i .. ": " .. text, text:find(row[2], 1, true), 1)
  check("end " .. i, text:sub(-3), "b|a")
end
pass(0)
check("records of tasks", select(2, counts()), 0)

-- A task that cancels itself in its first run leaves nothing behind; one that is cancelled by its own child neither.
task(function()
  local parent
  parent = task(function() task(function() cr_yield(5) end) cr_yield(600000) end)
  parent:cancel()
end)
pass(10)
check("records of cancelled tasks", select(2, counts()), 0)

-- wait_event: takes the first event that fits, misses none that follows, and runs while the event is dispatched.
task(function()
  local opened = wait_event("door", nil, { id = 2 ^ 52 + 1, state = "open" })
  say(opened.by .. " " .. evt_info())
  say(wait_event("door").state)
  say(tostring(wait_event("window", 0.2)) .. " " .. select(2, wait_event("window", 0.1)))
  say(select(2, pcall(tmr_delete)))
  say(select(2, pcall(coroutine.wrap(function() wait_event("window") end))):match("wait_event.*"))
end)
local id = "id=4503599627370497"
for _, info in ipairs { "id=2&state=open", id .. "&state=shut", id .. "&state=open&by=alice", "state=ajar", "" } do
  event_post(1, "door", info)
end
check("events", pass(0) .. pass(0) .. pass(0), "alice " .. id .. "&state=open&by=alice")
check("next event", pass(0), "ajar")
check("nobody waits", pass(0), "<1> mscript: unknown event type[door]")
check("timeout", pass(199) .. pass(1, 3600000) .. pass(99), "")
check("second timeout", pass(1), "nil timeout|This is not timer callback|wait_event outside a task")
local textless = setmetatable({}, { __tostring = function() error("planted", 0) end })
task(function() wait_event("window", 1, { a = textless }) end)
check("a value without a text", traced():match("[^|]*"), "tasks.lua: task failed: planted")
task(function() pcall(wait_event, "door", 0.05) cr_yield(100) say("slept") end)
check("a wait that failed", event("door") .. pass(60) .. pass(41), "<1> mscript: unknown event type[door]slept")
pass(0)
check("no table is left", rawget(_G, "es_window"), nil)

-- An event and the end of the wait in one pass; many waits leave the list as it was.
on("door", say, "seen")
task(function() for _ = 1, 1000 do wait_event("door", 60) end say("all") end)
local all = ""
for _ = 1, 1000 do all = event("door") end
pass(0)
check("all waits", all .. #es_door.list_func, "seen|all1")
