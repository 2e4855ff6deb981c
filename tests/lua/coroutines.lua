set_handler_tag("test")
local ran = {}
local function note(text) ran[#ran + 1] = text end

-- The pass at `ms`: what ran, and how many records are left.
local function pass(ms)
  ran = {}
  at(0, ms)
  resume_coroutines()
  return table.concat(ran, " "), (select(2, counts()))
end

local function expect(label, ms, wanted, left)
  local text, records = pass(ms)
  check(label .. " at " .. ms, text, wanted)
  check(label .. " records at " .. ms, records, left)
end

at(0, 0)
log()
check("thread", type(cr_add(function(arg)
  note(arg)
  cr_yield(500)
  note("again")
  cr_yield(500)
  note("end")
end, 0, "arg")), "thread")
check("line", log(), "<2> corutine add2: 1")
check("first run at once", ran[1], "arg")
check("wait", next_wait(), 500)
expect("not yet", 500, "", 1)
check("wait in the due ms", next_wait(), 0)
expect("due", 501, "again", 1)
expect("second", 1002, "end", 0)
check("longest wait", next_wait(), 1000)

-- What keeps a record and what drops it.
local rows = {
  { "returns", function() end, 0, 1, "", 0 },
  { "raises", function() error("silent") end, 0, 1, "", 0 },
  { "finished, waits for its delay", function() end, 50, 50, "", 1 },
  { "other yield, resumed once", function() coroutine.yield(1, 2) note("once") coroutine.yield() note("no") end,
    20, 21, "once", 0 },
  { "cr_yield(0) at first", function() cr_yield(0); note("once"); cr_yield(0) note("no") end, 99, 1, "once", 0 },
  { "negative wait", function() cr_yield(-5) note("due") end, 99, 0, "due", 0 },
  { "values on its stack are not run", function() return function() note("BAD") end end, 0, 1, "", 0 },
  { "C function that yields", cr_yield, 0, 501, "", 0, 500 },
  { "yield across pcall", function() pcall(cr_yield, 5) end, 0, 6, "", 0 },
  { "inner coroutine", function() coroutine.wrap(function() cr_yield(5) note("no") end)() note("outer") end,
    0, 6, "", 0 },
}
for _, row in ipairs(rows) do
  at(0, 0)
  cr_add(row[2], row[3], row[7])
  expect(row[1], row[4], row[5], row[6])
  expect(row[1] .. ", later", row[4] + 5000, "", 0)
end
check("no line about errors", log():find("silent"), nil)

-- The caller is current again after a nested cr_add, an invalid one included.
at(0, 0)
cr_add(function()
  cr_add(function() cr_yield(30) note("inner") end, 0, nil)
  raises("invalid", "Invalid function for coroutine", function() cr_add(5, 0, nil) end)
  cr_yield(20)
  note("outer")
end, 0, nil)
check("records", select(2, counts()), 2)
check("line", log():find("<1> Invalid function for coroutine!!!!!!!!!!!!!!!!", 1, true) ~= nil, true)
expect("outer", 21, "outer", 1)
expect("inner", 31, "inner", 0)

-- One that adds others which are due at once does not keep the pass busy.
local adder
adder = function() note("x"); cr_add(adder, -1, nil) end
at(0, 0)
cr_add(adder, 0, nil)
check("endless recursion ends", #ran > 100 and #ran < 1000, true)
expect("all dropped", 5000, "", 0)
local function once_more() note("x"); if #ran < 3 then cr_add(once_more, -1, nil) end cr_yield(-1) end
cr_add(once_more, 0, nil)
pass(5001)
check("bounded", #ran <= 3, true)
pass(9000)

-- Around the wrap of the clock, and with the clock set back.
local wrap = 2147483647
for _, start in ipairs { wrap - 100, wrap - 10, -2147483648 - 100 + 4294967296 } do
  at(0, start)
  cr_add(function() cr_yield(50) note("due") end, 0, nil)
  local function wrapped(ms) return ms > wrap and ms - 4294967296 or ms end
  expect("wrap", wrapped(start + 50), "", 1)
  expect("wrap", wrapped(start + 51), "due", 0)
end
at(0, 100000)
cr_add(function() cr_yield(50) note("due") end, 0, nil)
expect("set back", 0, "", 1)
check("wait", next_wait(), 50)
expect("set back", 51, "due", 0)

raises("outside", "cr_yield outside a coroutine", function() cr_yield(1) end)
at(0, 0)
local thread = cr_add(function() cr_yield(10) cr_yield(10) note("no") end, 0, nil)
check("resumed by a script", select(2, coroutine.resume(thread)):match("cr_yield outside a coroutine$") ~= nil, true)
expect("and dropped", 11, "", 0)

-- Tags: a coroutine's own timers and coroutines inherit its tag.
cr_add(function() set_handler_tag("") cr_add(function() note("inherits") end, 0, nil) end, 0, nil)
check("inherits", ran[#ran], "inherits")
raises("tag", "not set script tag name yet", function() cr_add(function() end, 0, nil) end)
set_handler_tag("test")
pass(100)

-- Many, and nothing is left of them.
local held = references()
for _ = 1, 10000 do cr_add(function() cr_yield(10) collectgarbage("step", 0) end, 0, nil) end
check("many", select(2, counts()), 10000)
pass(5000)
check("none", select(2, counts()), 0)
check("registry", references(), held)
raises("limit", "too many coroutines", function() for _ = 1, 70000 do cr_add(function() end, 2000000000, nil) end end)
check("limit", select(2, counts()), 65536)
