-- A health report, a daily tidying-up, and a task that looks for the uplink with growing waits until it is there.
--
--   zelvctl post 2 uplink state=up
script_define("health", {})

-- A reload runs this file again and its locals start afresh; what must survive it is global.
health = health or { started = os.time(), uplink = false }

on("uplink", function()
  health.uplink = evt_field_str("state") == "up"
end)

-- In seconds, since timems() wraps every 49.7 days and a device is up for longer.
every(10, function()
  trace(1, string.format("up for %d s, %d KiB of Lua", os.time() - health.started, collectgarbage("count")))
end)

at(3, 30, function()
  collectgarbage()
  trace(1, "tidied up")
end)

-- A task runs up to its first cr_yield at once; the loop resumes it when the wait is over and no event waits.
task(function(longest)
  local wait = 100
  while not health.uplink do
    trace(1, "uplink is down, next look in " .. wait .. " ms")
    cr_yield(wait)
    wait = math.min(wait * 2, longest)
  end
  trace(1, "uplink is up")
end, 60000)
