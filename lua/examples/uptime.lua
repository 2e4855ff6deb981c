-- Runs one of the device's own tools when asked to, without holding up the event loop. proc_run comes with the plug-in
-- libeaprocess.so; without it, this says so instead of failing, since a script that fails ends the daemon.
--
--   zelvctl post 4 report
script_define("uptime", {})

on("report", function()
  if not proc_run then
    return trace(1, "no report: the process plug-in is not loaded")
  end
  proc_run({ "uptime" }, 5, function(_, status, output)
    trace(1, "uptime ended with " .. status .. ": " .. output:match("^%s*(.-)%s*$"))
  end)
end)
