-- Says who opened or closed the door. Try it:
--
--   zelvctl post 1 door state=open by=alice
script_define("door", {})

on("door", function()
  local event = fields()
  trace(1, "the door is " .. event.state .. (event.by and ", says " .. event.by or ""))
end)
