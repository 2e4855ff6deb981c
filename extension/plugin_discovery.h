// Which plug-in files there are.
#pragma once

#include <string>
#include <vector>

// The names of the files "lib" TAG "*.so" in `dir`, without the directory, the one changed last first (equal times by
// name). `dir` is a word of a shell command, as it was configured; the shell is only started where it could make a
// difference. A directory that cannot be entered has no plug-ins. Names longer than 62 characters are left out, with a
// line each. Main thread, with the signals that the daemon lives by blocked, since the shell's processes inherit that.
std::vector<std::string> list_plugins(const std::string& dir, const char* tag);
