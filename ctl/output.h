// Writing, line by line, what comes from the daemon without end, until whoever reads it has gone.
#pragma once

#include <cstdio>
#include <string>

// Writes `text` and flushes it. Throws Failure(Exit::unreachable) when `out` takes nothing more.
void write_now(FILE* out, const std::string& text);

// Waits at most `wait_ms` (below 0: for as long as it takes) until descriptor `fd` can be read; with -1, only for the
// time to pass. Returns false when it cannot. Throws Failure(Exit::unreachable) when `out` is a pipe whose reader has
// gone.
bool wait_to_read(int fd, FILE* out, int wait_ms);
