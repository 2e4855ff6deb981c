// DEVICE_ROOT: a folder that goes in front of every absolute path of the embedded device libraries, so that tests,
// demos and several daemons on one machine stay apart.
#pragma once

#include <string>

// Puts $DEVICE_ROOT in front of `path`, an absolute path, and returns true. A DEVICE_ROOT that is not absolute is
// refused with one line on standard error; the result is then false, and the caller must leave the real path alone.
// Set-uid programs ignore the variable. Any thread.
bool under_device_root(const std::string& path, std::string& out);
