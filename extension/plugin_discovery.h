// Which plug-in files there are.
#pragma once

#include <string>
#include <vector>

// The names of the files "lib" TAG "*.so" in `dir`, without the directory, the one changed last first (equal times by
// name). A shell looks for them, so `dir` stands in its commands as it was configured; a directory that it cannot enter
// has no plug-ins. Names longer than 62 characters are left out, with a line each. Main thread, with the signals that
// the daemon lives by blocked, since the shell's processes inherit that.
std::vector<std::string> list_plugins(const std::string& dir, const char* tag);
