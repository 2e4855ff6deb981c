local most_negative = -2147483648

local rows = {
  { "bit_and", 8, 12, 10 }, { "bit_and", 8, 12, 10, 1 }, { "bit_and", 0, "rubbish", 7 }, { "bit_and", 4, "12", 4.9 },
  { "bit_or", 0 }, { "bit_or", 15, 1, 2, 4, 8 },
  { "bit_xor", 4, 5, 1 },
  { "bit_check", true, 5, 0 }, { "bit_check", false, 5, 1 }, { "bit_check", true, -1, 31 },
  { "bit_check", true, -8, 40 }, { "bit_check", false, 8, 40 }, { "bit_check", true, 8, 259 },
  { "bit_check", true, -1, -1 },
  { "lsb", 15, 4, 255 }, { "lsb", 0, 0, 255 }, { "lsb", 0, -3, 255 }, { "lsb", -2, 40, -2 }, { "lsb", 255, 256, 255 },
  { "lsb", 2147483647, 31, -1 },
  { "msb", 16, 4, 256 }, { "msb", -16, 4, -256 }, { "msb", 0, 40, 1000 }, { "msb", -1, 40, -1000 }, { "msb", 0, -1, 5 },
  { "lb", 52, 4660 }, { "lb", 255, -1 }, { "lb", 0, "x" },
  { "hb", 18, 4660 }, { "hb", -1, -1 }, { "hb", -2, -512 },
  { "shift", 16, 4, 1 }, { "shift", 16, -4, 256 }, { "shift", 7, 0, 7 }, { "shift", 0, 32, 1 },
  { "shift", -1, -40, -5 }, { "shift", 1, 256, 1 }, { "shift", 5, -256, 5 }, { "shift", most_negative, 31, 1 },
  { "shift", -1, most_negative, -1 },
  { "abs", 5, -5 }, { "abs", most_negative, most_negative }, { "abs", 3, 3 },
  { "isplus", 1, 3 }, { "isplus", 0, 0 }, { "isplus", 0, -1 },
  { "isminus", 1, -3 }, { "isminus", 0, 0 },
  { "sleep", 1, 1 }, { "sleep", "x", 0, "x" }, { "sleep", nil },
}
for _, row in ipairs(rows) do
  check(row[1], _G[row[1]](unpack(row, 3, table.maxn(row))), row[2])
end

check("sleep", log():find("<2> lua: sleep(1)\n", 1, true) ~= nil, true)
raises("bad argument #2 to '?' (number expected, got nil)", bit_or, 1, nil)
raises("bad argument #1 to '?' (0 to 2147483 ms expected)", sleep, -1)
check("math.abs is left alone", math.abs(-2.5), 2.5)
check("upvalues", debug.getinfo(shift).nups, 0)
