-- Says who opened or closed the door. Try it:
--
--   zelvctl post 1 door state=open by=alice
script_define("door", {})

on("door", function()
  local state = evt_field_str("state")
  local known, by = evt_field_str_safe("by")
  trace(1, "the door is " .. state .. (known and ", says " .. by or ""))
end)
