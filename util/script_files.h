// Which script files exist, and in which order the daemon loads them; `zelvctl check` uses the same list. Files and
// names only, no Lua; any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// True for the name of a script file: it ends in ".lua".
bool is_script_name(std::string_view name);

// The path of `name` in folder `dir`.
std::string script_in(const std::string& dir, const std::string& name);

// The script names in `dir`, in ascending byte order. Throws except_base when `dir` cannot be read.
std::vector<std::string> list_script_files(const std::string& dir);

// Where base file `name` (config.lua, server_event.lua) is loaded from: external_path if it is there, else script_path.
std::string base_script(const char* name, const std::string& script_path, const std::string& external_path);

struct DirectoryScripts {
  std::vector<std::string> paths;  // in load order, without the base files
  std::string ignored;             // why external_path could not be listed; empty when it could, or is not set
};

// The other files: those of external_path, then those of script_path whose name does not occur there. Throws
// except_base when script_path cannot be listed.
DirectoryScripts directory_scripts(const std::string& script_path, const std::string& external_path);
