// Compiles Lua files and runs none of them: do they have the form of a script?
#pragma once

#include <string>
#include <vector>

#include "ctl/check/findings.h"
#include "ctl/configuration.h"

// Compiles the scripts that the daemon would load, in its order. Returns the paths of those without a fault.
std::vector<std::string> compile_configured(const ScriptFolders& folders, Findings& findings);

// Compiles every script in each of `places`, a folder or a file. Returns the paths of those without a fault.
std::vector<std::string> compile_places(const std::vector<std::string>& places, Findings& findings);
