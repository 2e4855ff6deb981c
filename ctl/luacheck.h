// The help of luacheck, where it is installed: it finds names that no script sets and the daemon does not offer, which
// at run time would be nil.
#pragma once

#include <string>
#include <vector>

#include "ctl/findings.h"

// Warns of each use of a global that nothing defines: neither one of the `scripts`, nor one of the `declarations` (Lua
// files that only define), nor the daemon itself. Without luacheck, findings.unlooked says so.
void warn_of_unknown_globals(const std::vector<std::string>& scripts, const std::vector<std::string>& declarations,
                             Findings& findings);
