// Writing to a standard stream or a log whose reader may be gone.
#pragma once

#include <cstddef>

// Writes all `size` bytes to `fd`, going on after interruptions; a descriptor that somebody made non-blocking is waited
// for, a second at most each time. Returns false when not everything could be written, with errno set. Any thread.
bool write_fully(int fd, const char* data, size_t size);

// As write_fully, for a pipe or a terminal. A SIGPIPE that this raises is taken away before anybody sees it: a dead log
// must not be the cause of another log line. A SIGPIPE that waited before stays. Keeps the calling thread's signal mask.
bool write_quietly(int fd, const char* data, size_t size);
