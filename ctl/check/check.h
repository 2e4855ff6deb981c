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

struct CheckRequest {
  std::string root;                 // DEVICE_ROOT, or empty
  std::vector<std::string> places;  // folders or files; none: what the settings name
  std::string user;                 // whose rights to read with; empty: the running daemon's
  bool strict;                      // count warnings as faults
};

// The command. Without places it checks the settings and scripts of the daemon below `root` and the settings of the
// uplink, if there are any: with that daemon's rights
// if it runs and no user is given, otherwise as the installed one would load them. With places it checks all scripts
// there, which need not be complete, with our own rights unless a user is given. Writes everything to `out`. Throws
// Failure: Exit::unreachable when there are faults, or with `strict` warnings; Exit::usage for a user that is not there
// or whose rights only root can take.
void check_scripts(const CheckRequest& request, FILE* out);
