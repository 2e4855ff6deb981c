set_handler_tag("test")

-- What the pass at `ms` traces, how many records it leaves, and how long the loop may wait then.
local function expect(label, ms, wanted, left, wait)
  check(label .. " at " .. ms, ran(0, ms), wanted)
  local _, records, next_wait = counts()
  check(label .. ", records at " .. ms, records, left)
  check(label .. ", wait at " .. ms, wait or next_wait, next_wait)
end

ran(0, 0)
cr_add(function() cr_yield(500) trace(1, "again") end, 0, nil)
expect("waits", 0, "", 1, 500)
expect("not yet", 500, "", 1, 0)
expect("due", 501, "again", 0, 1000)

-- What keeps a record and what drops it. Rows: label, function, delay, time of a pass, what is traced, records left.
local rows = {
  { "raises", function() error("silent") end, 0, 1, "", 0 },
  { "finished, waits for its delay", function() end, 50, 50, "", 1 },
  { "other yield, resumed once", function() coroutine.yield(1, 2) trace(1, "once") coroutine.yield() trace(1, "no") end,
    20, 21, "once", 0 },
  { "cr_yield(0)", function() cr_yield(0) trace(1, "once") cr_yield(0) trace(1, "no") end, 99, 1, "once", 0 },
  { "inner coroutine", function() coroutine.wrap(function() cr_yield(5) trace(1, "no") end)() trace(1, "outer") end,
    0, 6, "outer", 0 },
}
for _, row in ipairs(rows) do
  ran(0, 0)
  cr_add(row[2], row[3], nil)
  expect(row[1], row[4], row[5], row[6])
  expect(row[1] .. ", later", row[4] + 5000, "", 0)
end

-- The caller is current again after a nested cr_add.
ran(0, 0)
cr_add(function()
  cr_add(function() cr_yield(30) trace(1, "inner") end, 0, nil)
  cr_yield(20)
  trace(1, "outer")
end, 0, nil)
expect("outer", 21, "outer", 1)
expect("inner", 31, "inner", 0)

-- One that adds others which are due at once does not keep the pass busy, nor use up the stack.
local runs = 0
local function adder() runs = runs + 1 cr_add(adder, -1, nil) end
cr_add(adder, 0, nil)
check("endless recursion ends", runs > 100 and runs < 1000, true)
expect("all dropped", 5000, "", 0)
local function next_one(left) cr_yield(-1) trace(1, "ran") if left > 0 then cr_add(next_one, 0, left - 1) end end
cr_add(next_one, 0, 1)
expect("one a pass", 5000, "ran", 1)
expect("one a pass", 5000, "ran", 0)

-- Around the wrap of the clock, and with the clock set back.
local start = 2147483637
ran(0, start)
cr_add(function() cr_yield(50) trace(1, "due") end, 0, nil)
expect("wrap", start + 50, "", 1)
expect("wrap", start + 51, "due", 0)
ran(0, 100000)
cr_add(function() cr_yield(50) trace(1, "due") end, 0, nil)
expect("set back", 0, "", 1, 50)
expect("set back", 51, "due", 0)
ran(0, 99000)
cr_add(function() cr_yield(1050) trace(1, "began before") end, 0, nil)
ran(0, 100000)
cr_add(function() cr_yield(50) trace(1, "began after") end, 0, nil)
expect("set back a little", 99990, "", 2, 50)
expect("set back a little", 100041, "began after", 1, 9)
expect("set back a little", 100051, "began before", 0)

-- Those that are due run in the order in which they were made.
for _, wait in ipairs { 30, 10, 20 } do cr_add(function() cr_yield(wait) trace(1, wait) end, 0, nil) end
expect("order", 100051, "", 3, 10)
expect("order", 100082, "30|10|20", 0)
ran(0, 51)

local thread = cr_add(function() cr_yield(10) cr_yield(10) trace(1, "no") end, 0, nil)
check("resumed by a script", select(2, coroutine.resume(thread)):match("cr_yield outside a coroutine$") ~= nil, true)
expect("and dropped", 62, "", 0)

-- Many, and nothing is left of them.
local held = references()
for _ = 1, 10000 do cr_add(function() cr_yield(10) collectgarbage("step", 0) end, 0, nil) end
check("many", select(2, counts()), 10000)
expect("many", 5000, "", 0)
check("registry", references(), held)
raises("too many coroutines", function() for _ = 1, 70000 do cr_add(function() end, 2000000000, nil) end end)
check("limit", select(2, counts()), 65536)
