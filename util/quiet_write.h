// Writing to a standard stream or a log whose reader may be gone.
#pragma once

#include <cstddef>

// Writes all `size` bytes to `fd` and goes on after interruptions. When `fd` is non-blocking and full, waits up to a
// second for room, each time. Returns false, with errno set, when not everything could be written. Any thread.
bool write_fully(int fd, const char* data, size_t size);

// As write_fully, for a pipe or a terminal. Consumes the SIGPIPE that it raises before any handler sees it: a dead log
// must not cause another log line. A SIGPIPE that was pending before stays pending. Keeps the thread's signal mask.
bool write_quietly(int fd, const char* data, size_t size);
