// The device's log, as the daemon sees it. Levels in use: 1 errors and notices of the daemon's life, 2 progress,
// 3 one line per event, 4 one line per received client packet; scripts choose their own.
// The embedded default is device/host/log.cpp; targets and line format are described in docs/operations.md.
#pragma once

extern "C" {

// Sets the level of log module `name`: a line is written when its level is at most this one. May come before
// errlog_init; any thread.
void elog_set_level(const char* name, int level);

// Opens the log for program `name`; `facility` selects the kind of log (3: daemon). Main thread, before other threads.
void errlog_init(int facility, const char* name);

// Writes one line. The text is printf-style; a line end is added unless the format brings one. Any thread, also before
// errlog_init and until the process is gone.
void elog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes text without framing: the pieces of one thread build lines, whose ends the caller writes itself. Any thread.
void elogr(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
}
