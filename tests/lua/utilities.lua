-- What the examples of the page on scripting leave open.
local most_negative = -2147483648

local rows = {
  { "bit_and", 0, "rubbish", 7 }, { "bit_and", 4, "12", 4.9 }, { "bit_or", 0 },
  { "bit_check", true, -8, 40 }, { "bit_check", false, 8, 40 }, { "bit_check", true, 8, 259 },
  { "lsb", 0, 0, 255 }, { "lsb", 0, -3, 255 }, { "lsb", -2, 40, -2 }, { "lsb", 2147483647, 31, -1 },
  { "msb", -16, 4, -256 }, { "msb", 0, 40, 1000 }, { "msb", -1, 40, -1000 }, { "msb", 0, -1, 5 },
  { "lb", 255, -1 }, { "hb", -1, -1 },
  { "shift", 7, 0, 7 }, { "shift", 0, 32, 1 }, { "shift", -1, -40, -5 }, { "shift", 1, 256, 1 },
  { "shift", most_negative, 31, 1 }, { "shift", -1, most_negative, -1 },
  { "abs", most_negative, most_negative }, { "isplus", 1, 3 }, { "isplus", 0, -1 }, { "isminus", 0, 0 },
}
for _, row in ipairs(rows) do
  check(row[1], _G[row[1]](unpack(row, 3)), row[2])
end

raises("bad argument #2 to '?' (number expected, got nil)", bit_or, 1, nil)
raises("bad argument #1 to '?' (0 to 2147483 ms expected)", sleep, -1)
