// Which plug-in files exist.
#pragma once

#include <string>
#include <vector>

// The names of the files "lib" TAG "*.so" in `dir`, without the directory, the latest change first (equal times by
// name). `dir` is a word of a shell command, as it was configured; the shell is started only where it could make a
// difference. A directory that cannot be entered has no plug-ins. Names longer than 62 characters are left out and
// logged. Main thread, with SIGHUP, SIGINT and SIGTERM blocked, which the shell's processes inherit.
std::vector<std::string> list_plugins(const std::string& dir, const char* tag);
