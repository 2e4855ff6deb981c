-- Declares for `zelvctl check` what libeaprocess.so adds; the daemon does not read it.
function proc_run(argv, timeout_s, func, arg) end -- luacheck: ignore 212
function run_wait(argv, timeout_s) end -- luacheck: ignore 131 212
