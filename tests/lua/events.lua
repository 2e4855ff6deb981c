local info = "cmd=type&test=33&data=aaa&a=1&a=2&x=& name=1&t=12abc&n=-7&big=99999999999&w=abc"

-- The value of an expression inside a handler.
local function in_handler(expression)
  es_probe = { list_func = { { "probe", assert(loadstring("result = " .. expression)) } } }
  check("dispatched", dispatch(7, "probe", info), true)
  return result
end

local rows = {
  { "evt_type_name()", "probe" }, { "evt_timestamp()", 1234 }, { "select(2, evt_timestamp())", -5 },
  { "evt_info()", info },
  { "evt_field_str('data')", "aaa" }, { "evt_field_int('test')", 33 }, { "evt_field_int('a')", 1 },
  { "evt_field_str('x')", "" }, { "evt_field_int('x')", 0 }, { "evt_field_int('t')", 12 },
  { "evt_field_int('w')", 0 }, { "evt_field_int('n')", -7 }, { "evt_field_int('big')", 2147483647 },
  { "(evt_field_str_safe('kkk'))", false }, { "select(2, evt_field_str_safe('kkk'))", "kkk" },
  { "(evt_field_str_safe('name'))", false }, { "select(2, evt_field_str_safe('data'))", "aaa" },
  { "select(2, pcall(evt_field_str, 'kkk'))", "not found field[kkk]" },
  { "(pcall(evt_field_str, ('k'):rep(2000)))", false },
  { "trace(2, 'hello')", "hello" }, { "trace('2', 5)", "5" }, { "debug.getinfo(trace).nups", 0 },
}
for _, row in ipairs(rows) do
  check(row[1], in_handler(row[1]), row[2])
end
check("trace", log():match("<2> lua%-trace: hello|<2> lua%-trace: 5") ~= nil, true)

for _, size in ipairs { 1024, 1025 } do
  es_long = { list_func = { { "t", function() found = (evt_field_str_safe("v")) end } } }
  dispatch(1, "long", "v=" .. ("x"):rep(size))
  check("value of " .. size, found, size == 1024)
end

raises("no event", "no event is being dispatched", function() evt_info() end)
raises("not loading", "it is not loading", function() get_module_name() end)
raises("not loading", "it is not loading", function() script_define("x", 1) end)
raises("level", "bad argument #1 to 'trace' (number expected, got nil)", function() trace(nil, "x") end)
raises("message", "bad argument #2 to 'trace' (string expected, got table)", function() trace(1, {}) end)
raises("tag", "bad argument #1 to 'set_handler_tag' (string expected, got no value)", function() set_handler_tag() end)

-- The stack dump of a handler shows the dump's own arguments; percent signs are text.
log()
es_dump = { list_func = { { "t", function() stack_dump("x") end }, { "t", function() stack_dump("y", { a = 1 }) end },
  { "t", function() stack_dump("%s", {}, true, 1.5, nil) end } } }
dispatch(1, "dump", "")
check("dump", log(), "<1> lua stack x(1)---\n  |<1> 'x'|<1>     |<1> \n---\n" ..
  "|<1> lua stack y(2)---\n  |<1> 'y'|<1>     |<1> table(a:1)|<1>     |<1> \n---\n" ..
  "|<1> lua stack %s(5)---\n  |<1> '%s'|<1>     |<1> table()|<1>     |<1> true|<1>     |<1> 1.5|<1>     |<1> nil(0)" ..
  "|<1>     |<1> \n---\n")

-- Whatever stands where a handler table or an entry is looked for costs one line, and the next event is fine.
local ran = 0
local good = { "good", function() ran = ran + 1 end }
local angry = setmetatable({}, { __index = function() error("angry table") end })
local faults = {
  { 5, "es_x is no table but a number" }, { "text", "es_x is no table but a string" },
  { false, "es_x is no table but a boolean" }, { angry, "angry table" },
  { { list_func = 42 }, "es_x.list_func is no table but a number" },
  { { list_func = "abc" }, "es_x.list_func is no table but a string" },
  { { list_func = { 5, good } }, "es_x.list_func[1] is no table but a number", 1 },
  { { list_func = { {}, good } }, "attempt to call a nil value", 1 },
  { { list_func = { { "t", function() error({}) end }, good } }, "NOT ERROR", 1 },
  { { list_func = { { "t", function() error() end }, good } }, "NOT ERROR", 1 },
  { { list_func = { { "t", function() error("%s%n", 0) end }, good } }, "%s%n", 1 },
  { { list_func = { { "t", function() local function f() return 1 + f() end f() end }, good } }, "stack overflow", 1 },
  { { list_func = { { "t", function() es_x.list_func = nil end }, good } }, "", 1 },
  { { list_func = { { "t", function() table.remove(es_x.list_func) end }, good } },
    "es_x.list_func[2] is no table but a nil", 0 },
  { { list_func = { { "t", function() table.insert(es_x.list_func, good) end } } }, "", 0 },
  { {}, "", 0 },
}
for i, fault in ipairs(faults) do
  log()
  ran = 0
  es_x = fault[1]
  check("fault " .. i .. " is counted", dispatch(3, "x", ""), true)
  local text = log()
  if fault[2] == "" then
    check("fault " .. i, text, "")
  else
    check("fault " .. i, text:find("<1> mscript: error[etype:3] - ", 1, true), 1)
    check("fault " .. i .. ": " .. text, text:find(fault[2], 1, true) ~= nil, true)
  end
  check("fault " .. i .. " others", ran, fault[3] or 0)
end
check("unknown", dispatch(3, "nobody", ""), false)
check("unknown", log(), "<1> mscript: unknown event type[nobody]")

-- Tags: each entry's own, none for one without text.
es_x = { list_func = { { 12, function() tmr_add(function() end, 1, 0, nil) end },
  { {}, function() tmr_add(function() end, 1, 0, nil) end } } }
dispatch(3, "x", "")
check("one timer was made", (counts()), 1)
check("the other had no tag", log():find("not set script tag name yet", 1, true) ~= nil, true)

setmetatable(_G, { __index = function(_, name) error("strict: " .. name, 0) end })
check("strict globals", dispatch(3, "nobody", ""), true)
check("strict globals", log(), "<1> mscript: error[etype:3] - strict: es_nobody")
setmetatable(_G, nil)
