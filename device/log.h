// The device's log, as the daemon sees it. Levels in use: 1 errors and notices of the daemon's life, 2 progress,
// 3 one line per event, 4 one line per received client packet; scripts choose their own.
// The embedded default is device/host/log.cpp; targets and line format are described in docs/operations.md.
#pragma once

#include <cstddef>

extern "C" {

// Sets the level of log module `name`: a line is written when its level is at most this one. May come before
// errlog_init; any thread. The embedded default has one level, whatever the name; it begins with 1.
void elog_set_level(const char* name, int level);

// Opens the log for program `name`; `facility` selects the kind of log (3: daemon). Main thread, before other threads.
void errlog_init(int facility, const char* name);

// Writes one line. The text is printf-style; a line end is added unless the text ends in one. Any thread, also before
// errlog_init and until the process ends; errno is kept. The embedded default escapes line ends and other control
// characters in arguments. A text whose last line is all blanks counts there as the first piece of a line that elogr
// completes.
void elog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes a piece of a line: the text as it is, whose line ends the caller writes. The embedded default keeps the pieces
// of a thread until one ends in a line end, or until the thread's next elog, and writes them together. Otherwise as
// elog.
void elogr(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// From now on gives what would be written, whole lines without a frame, to `take`, whatever the log's target. For a
// forked copy of the daemon, whose lines are not the daemon's. Declared weak: a device's own library may have none.
__attribute__((weak)) void elog_divert(void (*take)(int level, const char* lines, size_t size));
}
