-- post: events from tables, by the rules of zelvctl post.
dofile(lua_dir .. "/init_base.lua")
set_handler_tag("post")
on("x", function() trace(1, evt_info()) end)
local rows = {
  { nil, "" },
  { {}, "" },
  { { b = "x=y z", a = 1, c = true, ["d e"] = "" }, "a=1&b=x=y z&c=true&d e=" },
  { { n = 123456789012345, f = 0.5, s = -3 }, "f=0.5&n=123456789012345&s=-3" },
}
for i, row in ipairs(rows) do
  check("queued " .. i, post(4, "x", row[1]), true)
  check("info " .. i, ran(i, 0), row[2])
end

local refused = {
  { "bad argument #1 to '?' (whole 32-bit number expected)", 1.5, "x" },
  { "bad argument #2 to '?' (the name holds a blank or a control character)", 1, "a b" },
  { "bad argument #2 to '?' (the name is longer than 127 bytes)", 1, ("n"):rep(128) },
  { "bad argument #3 to '?' (table of fields expected, got string)", 1, "x", "a=1" },
  { "field 'a=b': a field's name cannot contain '='", 1, "x", { ["a=b"] = 1 } },
  { "field 'a&b': a field's name cannot contain '&'", 1, "x", { ["a&b"] = 1 } },
  { "field 'a': a field's value cannot contain '&'", 1, "x", { a = "1&2" } },
  { "field 'a': a field cannot contain a line end", 1, "x", { a = "1\n2" } },
  { "field 'a': a field cannot contain a zero byte", 1, "x", { a = "1\0" } },
  { "field 'a' is a table: expected a string, a number or a boolean", 1, "x", { a = {} } },
  { "a field's name is a number, not a string", 1, "x", { "a" } },
  { "field '': the field's name is missing", 1, "x", { [""] = "a" } },
  { "the line is longer than 65000 bytes", 1, "x", { a = ("x"):rep(64995) } },
}
for _, row in ipairs(refused) do raises(row[1], post, unpack(row, 2)) end
check("nothing of these is queued", ran(100, 0), "")
