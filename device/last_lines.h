// The daemon's last lines of level 1, kept where its supervisor can read them when it has ended: `zelvctl run` must say
// why a start has failed even where the log goes to syslog.
//
// The supervisor makes a file without a name and leaves its descriptor open for the daemon, which finds the number in
// the environment. Line number N is in slot N % kLastLines: "N TEXT", a line feed, and whatever was behind it before.
// So nobody has to read while the daemon runs, and nothing grows.
#pragma once

#include <cstddef>

constexpr char kLastLinesVariable[] = "ELOG_LAST_LINES";
constexpr unsigned kLastLines = 8;
constexpr size_t kLastLineSize = 512;  // bytes of a slot; a longer line is cut
