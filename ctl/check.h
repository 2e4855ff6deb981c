// `zelvctl check`: would the daemon's scripts load? Compiles them all, in the daemon's order, and runs none.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ctl/findings.h"

struct ScriptFolders {
  std::string settings;  // the file that names them
  std::string daemon;    // init_base.lua
  std::string script;    // script_path
  std::string external;  // external_path, or empty
  std::string plugins;   // dll_path
};

// The folders of the daemon in folder `daemon`, as the settings below `root` say now. Throws Failure(Exit::unreachable)
// when they cannot be read.
ScriptFolders configured_folders(const std::string& root, const std::string& daemon);

// Looks at the settings, compiles the scripts in `folders`, and when there is no fault has luacheck warn of globals
// that nothing defines. Returns what has been compiled, "4 scripts in FOLDER, FOLDER".
std::string check_scripts(const ScriptFolders& folders, Findings& findings);

// The command: checks the scripts of the daemon below `root`, with its rights if it runs, else those of the one that is
// installed; or with `dirs` all those of each of these, folders that need not be complete or files, with our own
// rights. Writes everything to `out`. Throws Failure(Exit::unreachable) when there are faults, or with `strict`
// warnings.
void check(const std::string& root, const std::vector<std::string>& dirs, bool strict, FILE* out);
