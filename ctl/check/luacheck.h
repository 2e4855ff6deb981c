// The part of a check that luacheck does where it is installed: it finds uses of globals that nothing defines, which
// would be nil when the script runs.
#pragma once

#include <string>
#include <vector>

#include "ctl/check/findings.h"

// Unless there are faults already, warns of each use of a global that none of `scripts` sets, none of `declarations`
// (Lua files that only define) and not the daemon itself. Tells `findings` when it has looked, and when luacheck is not
// installed.
void check_globals(const std::vector<std::string>& scripts, const std::vector<std::string>& declarations,
                   Findings& findings);

// The declarations in folder `plugins`: a plug-in that adds globals may bring a file for tools that defines them, which
// lies beside it and has its name, "libea_NAME.lua".
std::vector<std::string> plugin_declarations(const std::string& plugins);
