local function traced_by(name, text)
  event_post(3, name, text)
  return ran(0, 0)
end

-- The value of an expression inside a handler.
local function in_handler(expression)
  es_probe = { list_func = { { "probe", assert(loadstring("argument = ... result = " .. expression)), 7 } } }
  traced_by("probe", "a=1&a=2&x=&n=-7&big=99999999999&w=abc")
  return _G.result
end

local rows = {
  { "evt_field_int('a')", 1 }, { "evt_field_str('x')", "" }, { "evt_field_int('x')", 0 }, { "evt_field_int('w')", 0 },
  { "evt_field_int('n')", -7 }, { "evt_field_int('big')", 2147483647 },
  { "select(2, evt_field_str_safe('a'))", "1" }, { "(pcall(evt_field_str, ('k'):rep(2000)))", false },
  { "trace('2', 5)", "5" }, { "select(2, pcall(evt_field_str, 'gone')):match('not .*')", "not found field[gone]" },
}
for _, row in ipairs(rows) do check(row[1], in_handler(row[1]), row[2]) end
check("argument", _G.argument, 7)

for _, size in ipairs { 1024, 1025 } do
  es_long = { list_func = { { "t", function() trace(1, tostring(evt_field_str_safe("v"))) end } } }
  check("value of " .. size, traced_by("long", "v=" .. ("x"):rep(size)), tostring(size == 1024))
end

raises("no event is being dispatched", evt_info)
raises("bad argument #1 to '?' (number expected, got nil)", trace, nil, "x")

local dump = "lua stack below(4)---\n  1.5    'text'    table(a:1)    thread(8)    \n---\n"
check("stack dump in a coroutine", dumped_by_coroutine(1.5, "text", { a = 1 }), dump)

-- Whatever stands where a handler table or an entry is looked for costs one line, and the next entry is fine.
local good = { "good", function() trace(1, "good") end }
local function first(func) return { list_func = { { "t", func }, good } } end
local faults = {
  { 5, "es_x is a number, not a table" }, { false, "es_x is a boolean, not a table" },
  { setmetatable({}, { __index = function() error("angry", 0) end }), "angry" },
  { { list_func = "abc" }, "es_x.list_func is a string, not a table" },
  { { list_func = { 5, good } }, "es_x.list_func[1] is a number, not a table|good" },
  { { list_func = { {}, good } }, "attempt to call a nil value|good" },
  { first(function() error() end), "NOT ERROR|good" }, { first(function() error("%s%n", 0) end), "%s%n|good" },
  { first(function() es_x.list_func = nil end), "good" },
  { first(function() table.remove(es_x.list_func) end), "es_x.list_func[2] is a nil, not a table" },
  { { list_func = { { "t", function() table.insert(es_x.list_func, good) end } } }, "" },
}
for i, fault in ipairs(faults) do
  es_x = fault[1]
  check("fault " .. i, traced_by("x", ""):gsub("<1> mscript: error%[etype:3%] %- ", ""), fault[2])
end

-- Tags: each entry's own, none for one without text.
local function add_timer() tmr_add(print, 1, 0, nil) end
es_x = { list_func = { { 12, add_timer }, { {}, add_timer } } }
check("one has no tag", traced_by("x", ""):match("^[^|]*not set script tag name yet$") ~= nil, true)
check("one timer was made", (counts()), 1)

setmetatable(_G, { __index = function(_, name) error("strict: " .. name, 0) end })
check("strict globals", traced_by("nobody", ""), "<1> mscript: error[etype:3] - strict: es_nobody")
setmetatable(_G, nil)
check("unknown", traced_by("nobody", ""), "<1> mscript: unknown event type[nobody]")
