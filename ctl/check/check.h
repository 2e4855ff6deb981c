// `zelvctl check`: would the daemon load its scripts? Compiles all of them, in the daemon's order, and runs none.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ctl/check/findings.h"
#include "ctl/configuration.h"

// Checks the settings, the scripts in `folders`, and when these have no fault, with luacheck, the globals that they
// use. Returns what was compiled, "4 scripts in FOLDER, FOLDER".
std::string check_configured(const ScriptFolders& folders, Findings& findings);

// The command. Without `places` it checks the settings and scripts of the daemon below `root`: with that daemon's
// rights if it runs, otherwise as the installed one would load them. With `places`, folders or files, it checks all
// scripts there, which need not be complete, with our own rights. Writes everything to `out`. Throws
// Failure(Exit::unreachable) when there are faults, or with `strict` warnings.
void check_scripts(const std::string& root, const std::vector<std::string>& places, bool strict, FILE* out);
