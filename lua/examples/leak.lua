-- Asks for the main valve to be shut when a leak is reported, and sounds the siren until it is, or nobody answers.
--
--   zelvctl post 6 leak
--   zelvctl post 8 valve state=shut
script_define("leak", {})

on("siren", function()
  trace(1, "siren " .. evt_field_str("to"))
end)

local busy

on("leak", function()
  if busy and busy:active() then
    return
  end
  busy = task(function()
    event_post(7, "siren", "to=on")
    local reminder = after(10, function() trace(1, "the valve does not answer yet") end)
    finally(function() -- also when a reload ends the task
      reminder:cancel()
      event_post(7, "siren", "to=off")
    end)
    local answer, why = wait_event("valve", 60, { state = "shut" })
    trace(1, answer and "the valve is shut" or "the valve: " .. why)
  end)
end)
