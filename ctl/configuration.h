// What the settings file on this machine tells zelvctl: where the daemon's scripts are, and which port it listens on.
#pragma once

#include <string>

struct ScriptFolders {
  std::string settings;  // the settings file itself
  std::string daemon;    // where init_base.lua is
  std::string script;    // script_path
  std::string external;  // external_path, or empty
  std::string plugins;   // dll_path
};

// The folders that a daemon whose executable is in folder `daemon` would use now; `root` is DEVICE_ROOT. Throws
// Failure(Exit::unreachable) when the settings cannot be read.
ScriptFolders configured_folders(const std::string& root, const std::string& daemon);

// The listener's port, 5512 when the settings name none or cannot be read; 0 when only the running daemon knows it.
int configured_port();

// The setting listener_address, "0.0.0.0" when it is missing or the settings cannot be read.
std::string configured_address();

// Why the regular file `path` cannot be read, "is not a regular file" included; empty when it can be read. Opens
// nothing: a FIFO would wait for its writer.
std::string why_unreadable_file(const std::string& path);

// Why the folder `path` cannot be listed; empty when it can be listed.
std::string why_unreadable_folder(const std::string& path);
