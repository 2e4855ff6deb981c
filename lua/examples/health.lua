-- A periodic health report, and a task that retries with growing waits until the uplink answers.
--
--   zelvctl post 2 uplink state=up
script_define("health", {})

-- A reload runs this file again, but the timers and tasks of the load before go on. Each load takes a new number; what
-- finds that its own is old ends itself.
health_load = (health_load or 0) + 1
local load = health_load

local started = timems()
local uplink = false

on("uplink", function()
  uplink = evt_field_str("state") == "up"
end)

-- Every 10 s, on the multiples of 10 s: the origin 0 fixes the phase.
tmr_add(function(name)
  if load ~= health_load then
    return tmr_delete()
  end
  trace(1, string.format("%s: up for %d s, %d KiB of Lua", name, (timems() - started) / 1000, collectgarbage("count")))
end, 10, 0, "health")

-- Runs up to its first cr_yield at once; then the loop resumes it when the wait is over and no event is there.
cr_add(function(longest)
  local wait = 100
  while load == health_load and not uplink do
    trace(1, "uplink is down, next look in " .. wait .. " ms")
    cr_yield(wait)
    wait = math.min(wait * 2, longest)
  end
  if load == health_load then
    trace(1, "uplink is up")
  end
end, 0, 60000)
