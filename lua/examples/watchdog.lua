-- Notices when a part of the device falls silent. Each part posts a sign of life more often than it may be silent:
--
--   zelvctl post 3 heartbeat from=pump
--
-- What is late or back is posted as an event of its own, so that programs elsewhere can listen for it too:
--
--   zelvctl listen silence
script_define("watchdog", {})

local parts = { pump = 30, heater = 60 } -- how long they may be silent, s
local look_every = 5                     -- s

-- Silence is counted in looks and not read from the clock, which may be set. A part that this file does not name is not
-- watched: names come from outside, and a table of all of them could grow without end. Global, to survive a reload.
watchdog_silent = watchdog_silent or {}
local silent = watchdog_silent
for part in pairs(parts) do
  silent[part] = silent[part] or 0
end

on("heartbeat", function()
  local part = evt_field_str("from")
  if not parts[part] then
    return
  end
  if silent[part] >= parts[part] then
    event_post(4, "silence", "part=" .. part .. "&state=over")
  end
  silent[part] = 0
end)

every(look_every, function()
  for part, longest in pairs(parts) do
    local before = silent[part]
    silent[part] = before + look_every
    if before < longest and silent[part] >= longest then
      event_post(4, "silence", "part=" .. part .. "&state=begins&after=" .. longest)
    end
  end
end)

on("silence", function()
  trace(1, "silence of " .. evt_field_str("part") .. ": " .. evt_field_str("state"))
end)
