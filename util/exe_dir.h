// Where the daemon's executable lies: init_base.lua lies beside it, and it is the default script directory.
#pragma once

#include <string>

// The directory of `path` by the daemon's rule: a text of at most 3 characters is the result itself; one "/" at the end
// is dropped; then everything before the last "/" counts, except that a "/" at index 2 stays ("/a/zelvind" gives
// "/a/").
std::string exe_dir_of(std::string path);

// exe_dir_of the running executable, with symbolic links followed. Empty when the system does not tell. Any thread.
std::string exe_dir();
