// DEVICE_ROOT: a folder that the embedded device libraries put in front of every absolute path, so that tests, demos
// and several daemons on one machine stay apart.
#pragma once

#include <string>

// Sets `out` to `path`, an absolute path, with $DEVICE_ROOT in front, and returns true. When DEVICE_ROOT is not
// absolute, says so once on standard error and returns false; the caller must then not use the path at all. Set-uid
// programs ignore the variable. Any thread.
bool under_device_root(const std::string& path, std::string& out);

enum class FolderSync { none, each };

// Makes the folders above `path`; everybody may enter those that it makes, whatever the umask. With FolderSync::each,
// those outlast a loss of power; that may wait for the disk. Returns false, with errno set, when one is missing and
// cannot be made. Any thread.
bool make_folders(const std::string& path, FolderSync sync = FolderSync::none);
