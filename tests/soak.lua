-- The soak's script: counts, fails now and then, and is loaded again and again.
script_define("soak", {})
seen = seen or { [0] = 0, 0, 0, 0, 0 }
faults, started, done = faults or 0, started or 0, done or 0
on("soak", function()
  local poster, n = evt_field_int("poster"), evt_field_int("n")
  if n ~= seen[poster] + 1 then
    faults = faults + 1
    trace(1, "soak: poster " .. poster .. " at " .. seen[poster] .. " got " .. n)
  end
  seen[poster] = n
end)
on("soak", function()
  local n = evt_field_int("n")
  if n % 1009 == 0 then error(n % 2 == 0 and "planned" or {}) end
end)
on("soak_posted", function() trace(1, "soak: plug-in " .. evt_field_int("n")) end)
on("soak_report", function()
  trace(1, "soak: " .. table.concat(seen, " ", 0, 4) .. ", faults " .. faults .. ", programs left " .. started - done)
end)
tmr_add(function() tmr_delete() error("planned") end, 1, 0, nil)
cr_add(function() for _ = 1, 10 do cr_yield(20) end error("planned") end, 0, nil)
started = started + 1
proc_run({ "/bin/true" }, 10, function() done = done + 1 end)
every(1, function() trace(1, "soak: tick") end)
