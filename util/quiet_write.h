// Writing to a file, and to a standard stream or a log whose reader may be gone or asleep.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

// Writes all `size` bytes to `fd` and goes on after interruptions. When `fd` is non-blocking and full, waits up to a
// second for room, each time. Returns false, with errno set, when not everything could be written. Any thread.
bool write_fully(int fd, const char* data, size_t size);

// A place for lines that must not hold up the writer: a write there never waits for the reader of a pipe, a terminal or
// a socket. (For a disk it does.) Nor does a SIGPIPE of it reach a handler: a dead log must not cause another log line.
//
// Plain memory without a destructor: the log outlives everything. Not thread-safe.
class QuietOutput {
 public:
  // Writes to `fd` from now on, which remains the caller's. A pipe or terminal is opened anew, for us alone: O_NONBLOCK
  // on `fd` would change it for all who share it. Where that fails with a pipe, asks for room before each piece that is
  // certain to fit then; another writer that takes the room in between can still hold us up. Where it fails with a
  // terminal, as with another user's, writes nothing: no room there is certain. Returns false then, with errno set.
  bool use(int fd);

  // Writes to `fd` from now on and owns it. It must be non-blocking unless it is a file.
  void own(int fd);

  // Closes the descriptor if this object owns it.
  void close();

  // The descriptor to wait with, or -1.
  int descriptor() const { return output; }

  // Writes what is taken at once: returns how much, or -1 with errno set, EAGAIN when nothing is taken now.
  ssize_t write(const char* data, size_t size) const;

 private:
  ssize_t write_once(const char* data, size_t size) const;

  int output = -1;
  bool is_own = false;
  bool is_socket = false;
  bool raises_sigpipe = false;
  bool is_blocking = false;  // a pipe, which takes PIPE_BUF bytes when poll says that there is room
};

// Writes `text` through a QuietOutput to `fd`, usually standard error. Waits for room up to `wait_ms`, each time, and
// gives up when that room does not suffice. Returns false, with errno set, when not everything was taken. A SIGPIPE
// that was pending before stays pending. Keeps the thread's signal mask. Any thread.
bool write_quietly(int fd, std::string_view text, int wait_ms = 0);
