// What there is of scripts, as lines of the answer to `scripts` at the control socket (docs/control.md): files,
// handlers, timers and tasks, each with the place in the script's source.
#pragma once

#include <string>

class ManagerScript;

// Only the thread that has the Lua state. Logs nothing, changes nothing; what a script has put together in a way that
// cannot be read is left out.
std::string script_report(ManagerScript& script);
